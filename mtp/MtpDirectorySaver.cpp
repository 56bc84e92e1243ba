#include "mtp/MtpDirectorySaver.h"

#include <QString>
#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "db/Timer.h"
#include "facade/KestrowQTProxy.h"

namespace kestrow {

MtpDirectorySaver::MtpDirectorySaver(const char* name_)
    : ServerDB<Block<MtpDirectory*>, Block<void>>(name_) {}

boost::shared_ptr<Block<void>> MtpDirectorySaver::doOperation(
    boost::shared_ptr<Block<MtpDirectory*>> in) {
    ZQLOG_INFO("MtpDirectorySaver for: %u", unsigned(in->items.size()));
    Timer timer;
    boost::shared_ptr<Block<void>> out(new Block<void>());
    out->operation = in->operation;
    if (in->operation.deviceGone) {
        // What was found is not the device: the stored folders stay as they are.
        ZQLOG_WARN("device gone, folders not saved (op: %d)", in->operation.id);
        return out;
    }
    const std::string& mountPoint = in->operation.mountPoint;
    std::vector<MtpDirectory*> folders;
    std::copy_if(in->items.begin(), in->items.end(), std::back_inserter(folders),
                 [](const MtpDirectory* d) { return d != nullptr; });

    open(in->operation.deviceId);
    // A phone's database holds its folders alone, whose paths ("Phone/Music")
    // do not lie below its mount point ("mtp-folder://<id>"): all of them are
    // compared, rather than none, so that unchanged folders are not written again.
    std::vector<std::string> stored;
    istream.query("SELECT OBJECTID FROM DIRECTORIES ORDER BY OBJECTID;");
    while (istream.step().good()) {
        std::string id;
        istream >> id;
        stored.push_back(id);
    }
    istream.finalize();

    std::vector<std::string> found;
    for (const MtpDirectory* d : folders)
        found.push_back(d->objectId.toString());
    std::sort(found.begin(), found.end());
    std::vector<std::string> changes;
    std::set_symmetric_difference(stored.begin(), stored.end(), found.begin(), found.end(),
                                  std::back_inserter(changes));
    ZQLOG_INFO("RNC: Found changes %u", unsigned(changes.size()));

    if (!changes.empty()) {
        if (state == Runnable::kRunning) {
            emit KestrowQTProxy::instance().contentModified(QString::fromUtf8(mountPoint.c_str()));
        }
        ostream.exec("BEGIN TRANSACTION;");
        ostream.exec("DELETE FROM DIRECTORIES;");
        ostream.query(
            "INSERT INTO DIRECTORIES (PARTITION_ID, PATH,  NAME, OBJECTID, PARENT_ID)              "
            "                               VALUES (?,?,?,?,?);");
        std::copy(folders.begin(), folders.end(),
                  sqlstl::sqlostream_iterator<MtpDirectory*>(ostream));
        ostream.finalize();
        ostream.exec("END TRANSACTION;");
    }

    if (storageFailed())
        out->operation.writeFailed = true;
    ZQLOG_INFO("MtpDirectorySaver timer: %ld", timer.stop());
    ostream.close();
    istream.close();
    return out;
}

}  // namespace kestrow
