#include "msd/ChangeFinder.h"

#include <QString>

#include "facade/KestrowQTProxy.h"
#include "msd/GenericChangeFinder.h"
#include "platform/common/DatabaseMgr.h"

namespace kestrow {

ChangeFinder::ChangeFinder(const char* name_, const std::string& selectText_,
                           const std::string& deleteText_, bool completeSelect_,
                           const std::string& retimeText_)
    : ServerDB<Block<FileInfo*>, Block<FileInfo*>>(name_),
      selectText(selectText_),
      deleteText(deleteText_),
      completeSelect(completeSelect_),
      retimeText(retimeText_) {}

boost::shared_ptr<Block<FileInfo*>> ChangeFinder::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    const Operation& op = in->operation;
    ZQLOG_INFO("ChangeFinder for: %u (op: %d)", unsigned(in->items.size()), op.id);
    boost::shared_ptr<Block<FileInfo*>> out(new Block<FileInfo*>());
    out->operation = op;
    if (op.id != comparedOperation) {
        comparison.reset(new GenericChangeFinder(name, ostream, istream, op, retimeText));
        comparedOperation = op.id;
        modifiedSignalled = writeFailed = false;
    }
    if (op.deviceGone) {
        // What was found is incomplete: comparing would delete the rest.
        ZQLOG_WARN("device gone, nothing compared (op: %d)", op.id);
    } else {
        open(op.deviceId);
        comparison->findDifference(selectText, deleteText, in.get(), out.get(), !completeSelect);
        istream.close();
        ostream.close();
        // Told on the last block, which alone reaches the pipeline's end.
        writeFailed = writeFailed || storageFailed();
    }
    out->operation.writeFailed = out->operation.writeFailed || (op.lastBlock && writeFailed);
    if (op.lastBlock) {
        comparison.reset();
        comparedOperation = -1;
    }

    if (!out->items.empty() && !modifiedSignalled) {
        modifiedSignalled = true;
        DatabaseMgr::instance().insertStatus(op.deviceId, op.mountPoint, "PROGRESS");
        if (state == Runnable::kRunning) {
            emit KestrowQTProxy::instance().contentModified(
                QString::fromUtf8(op.mountPoint.c_str()));
        }
    }
    return out;
}

}  // namespace kestrow
