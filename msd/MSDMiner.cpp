#include "msd/MSDMiner.h"

#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tdebuglistener.h>
#include <taglib/tfile.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <utility>

#include "db/Timer.h"
#include "msd/BoundedFileStream.h"
#include "msd/Encoder.h"
#include "msd/MountPointCheck.h"
#include "platform/common/DatabaseMgr.h"

namespace kestrow {

namespace {

// Takes TagLib's diagnostics into the log at debug level. Installs itself as
// TagLib's debug listener for its life, and gives TagLib its own back when
// it goes.
class TagLibToLog : public TagLib::DebugListener {
public:
    TagLibToLog() { TagLib::setDebugListener(this); }
    ~TagLibToLog() override { TagLib::setDebugListener(nullptr); }

    void printMessage(const TagLib::String& message) override {
        std::string text = message.to8Bit(true);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.pop_back();
        ::implZQLog(0, DLT_LOG_DEBUG, zqPrettyFunction ? __PRETTY_FUNCTION__ : __func__, __LINE__,
                    "", "%s", text.c_str());
    }
};

// TagLib's diagnostics go to the log through its own listener, installed
// once per process, instead of standard error being swapped per block:
// overlapping miners must not leave std::cerr on a buffer that one of them
// has freed, and the host's stderr stays its own. A static object, not a
// heap one: reachable until exit, and destroyed before TagLib's own.
void silenceTagLib() {
    static TagLibToLog listener;
}

unsigned coreCount() {
    const unsigned cores = std::thread::hardware_concurrency();
    return cores ? cores : 1;
}

}  // namespace

// One block's reading, shared by its readers. `files` and `op` are only read;
// each reader writes only the slots of the files it took.
struct MSDMiner::Pass {
    Pass(const std::vector<FileInfo*>& files_, const Operation& op_)
        : files(files_), op(op_), records(files_.size()) {}

    const std::vector<FileInfo*>& files;
    const Operation& op;
    std::vector<std::unique_ptr<MetaDataInfo>> records;  // one slot per file
    std::atomic<size_t> next{0};                         // the next file to take
    std::atomic<bool> stop{false};                       // the readers stop at their next file
    std::atomic<bool> gone{false};                       // a reader found the device gone
    std::mutex errorMutex;
    std::exception_ptr error;  // the first failure of a reader; under errorMutex
};

MSDMiner::MSDMiner(const char* name_, unsigned workers_)
    : Server<Block<FileInfo*>, Block<MetaDataInfo*>>(name_),
      workers(std::min(workers_ ? workers_ : coreCount(), kMaxWorkers)),
      goneOperation(-1) {}

void MSDMiner::markGone(Operation& op) {
    op.deviceGone = true;
    goneOperation = op.id;
}

void MSDMiner::setFileHook(std::function<void(const std::string&)> hook) {
    fileHook = std::move(hook);
}

bool MSDMiner::readTrack(const FileInfo& file, const Operation& op,
                         std::unique_ptr<MetaDataInfo>& record) {
    const std::string& path = *file.path;
    const std::string& mountPoint = op.mountPoint;
    try {
        BoundedFileStream stream(path);
        TagLib::FileRef ref;
        // Without audio properties, unlike the "average" style: no column
        // needs them, and TagLib would look for them through the whole file.
        if (!stream.error())
            ref = TagLib::FileRef(&stream, false);
        if (stream.cutShort())
            ZQLOG_INFO("reading cut short after %u reads: %s", stream.reads(), path.c_str());
        if (stream.error()) {
            ZQLOG_WARN("cannot read track: %s: %s", path.c_str(), std::strerror(stream.error()));
            if (MountPointCheck::lost(op)) {
                return false;
            }
            // Its row holds no tags until the file can be read.
            ZQLOG_INFO("insert empty, to be read again: %s", path.c_str());
            record.reset(new MetaDataInfo(path, mountPoint, std::string(), std::string(),
                                          std::string(), std::string(), std::string(), 1, 1,
                                          file.lastModified));
            record->lastModified = FileInfo::kUnreadTime;
            return true;
        }
        if (ref.isNull()) {
            ZQLOG_INFO("NULL file for track: %s", path.c_str());
            if (MountPointCheck::lost(op)) {
                return false;
            }
            ZQLOG_INFO("insert empty: %s", path.c_str());
            record.reset(new MetaDataInfo(path, mountPoint, std::string(), std::string(),
                                          std::string(), std::string(), std::string(), 1, 1,
                                          file.lastModified));
            return true;
        }
        const TagLib::Tag* tag = ref.tag();
        if (!tag)
            return true;
        record.reset(Encoder::instance().guessAndConvert(path, mountPoint, file.lastModified, tag,
                                                         ref.file()->properties()));
        if (!record) {
            ZQLOG_ERROR("invalid encoding");
            return true;
        }
        record->setAsianFields();
    } catch (const std::exception& e) {
        record.reset();
        ZQLOG_ERROR("exception from taglib for track: %s what %s", path.c_str(), e.what());
    }
    return true;
}

size_t MSDMiner::takeFile(Pass& pass) {
    if (!fileHook)
        return pass.next++;
    // Taken under the lock too, so that the hook sees the files in order.
    std::lock_guard<std::mutex> lock(hookMutex);
    const size_t index = pass.next++;
    if (index < pass.files.size() && pass.files[index] && pass.files[index]->path && !pass.stop)
        fileHook(*pass.files[index]->path);
    return index;
}

void MSDMiner::readFiles(Pass& pass) {
    try {
        while (!pass.stop) {
            const size_t index = takeFile(pass);
            if (index >= pass.files.size())
                return;
            const FileInfo* file = pass.files[index];
            if (!file || !file->path)
                continue;
            if (pass.stop)
                return;
            // Checked before each file: a stick unmounted with its folder
            // kept makes every later file fail to open, not the mount point.
            if (MountPointCheck::lost(pass.op) || !readTrack(*file, pass.op, pass.records[index])) {
                pass.gone = true;
                pass.stop = true;
            }
        }
    } catch (...) {
        std::lock_guard<std::mutex> lock(pass.errorMutex);
        if (!pass.error)
            pass.error = std::current_exception();
        pass.stop = true;
    }
}

boost::shared_ptr<Block<MetaDataInfo*>> MSDMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    ZQLOG_INFO("MSDMiner for: %u (op: %d)", unsigned(in->items.size()), in->operation.id);
    Timer timer;
    silenceTagLib();
    // Built in the background once there are songs to read, for the first
    // Asian text among them: an indexing that reads no song never builds it.
    if (!in->items.empty())
        MetaDataInfo::prepareAsianReading();

    boost::shared_ptr<Block<MetaDataInfo*>> out(new Block<MetaDataInfo*>());
    out->operation = in->operation;
    if (goneOperation == in->operation.id) {
        markGone(out->operation);
        return out;
    }

    DatabaseMgr& mgr = DatabaseMgr::instance();
    if (mgr.dbSizeHasReachLimit(mgr.getDbNameFromDevId(in->operation.deviceId))) {
        ZQLOG_INFO("MSDMiner SKIPPED db size limit reached (op: %d)", in->operation.id);
        return out;
    }

    // No read-ahead hints: on a USB stick each costs an open of its own and
    // brings nothing, as the stream sizes its reads itself.
    const std::vector<FileInfo*>& files = in->items;

    Pass pass(files, in->operation);
    const size_t readers = std::min<size_t>(workers, files.size());
    std::vector<std::thread> helpers;
    helpers.reserve(readers);
    for (size_t i = 1; i < readers; ++i) {
        try {
            helpers.emplace_back([this, &pass] { readFiles(pass); });
        } catch (const std::exception& e) {
            // Fewer readers, as many files.
            ZQLOG_WARN("reading with %u threads: %s", unsigned(i), e.what());
            break;
        }
    }
    readFiles(pass);
    for (std::thread& helper : helpers)
        helper.join();
    if (pass.error)
        std::rethrow_exception(pass.error);

    out->items.reserve(files.size());
    for (std::unique_ptr<MetaDataInfo>& record : pass.records)
        if (record)
            out->items.push_back(record.release());
    if (pass.gone)
        markGone(out->operation);

    ZQLOG_INFO("MSDMiner timer: %ld (op: %d)", timer.stop(), in->operation.id);
    return out;
}

}  // namespace kestrow
