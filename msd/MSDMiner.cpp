#include "msd/MSDMiner.h"

#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tdebuglistener.h>
#include <taglib/tfile.h>

#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "db/Timer.h"
#include "msd/BoundedFileStream.h"
#include "msd/Encoder.h"
#include "msd/MountPointCheck.h"
#include "msd/ReadAhead.h"
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

}  // namespace

MSDMiner::MSDMiner(const char* name_)
    : Server<Block<FileInfo*>, Block<MetaDataInfo*>>(name_), goneOperation(-1) {
    // Ready by the time the first songs are read, which need it for any Asian
    // text; the walk and the comparison come first.
    MetaDataInfo::prepareAsianReading();
}

void MSDMiner::markGone(Operation& op) {
    op.deviceGone = true;
    goneOperation = op.id;
}

void MSDMiner::setFileHook(std::function<void(const std::string&)> hook) {
    fileHook = std::move(hook);
}

bool MSDMiner::readTrack(const FileInfo& file, const Operation& op,
                         std::vector<MetaDataInfo*>& out) {
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
            MetaDataInfo* info =
                new MetaDataInfo(path, mountPoint, std::string(), std::string(), std::string(),
                                 std::string(), std::string(), 1, 1, file.lastModified);
            info->lastModified = FileInfo::kUnreadTime;
            out.push_back(info);
            return true;
        }
        if (ref.isNull()) {
            ZQLOG_INFO("NULL file for track: %s", path.c_str());
            if (MountPointCheck::lost(op)) {
                return false;
            }
            ZQLOG_INFO("insert empty: %s", path.c_str());
            out.push_back(new MetaDataInfo(path, mountPoint, std::string(), std::string(),
                                           std::string(), std::string(), std::string(), 1, 1,
                                           file.lastModified));
            return true;
        }
        const TagLib::Tag* tag = ref.tag();
        if (!tag)
            return true;
        MetaDataInfo* info = Encoder::instance().guessAndConvert(
            path, mountPoint, file.lastModified, tag, ref.file()->properties());
        if (!info) {
            ZQLOG_ERROR("invalid encoding");
            return true;
        }
        info->setAsianFields();
        out.push_back(info);
    } catch (const std::exception& e) {
        ZQLOG_ERROR("exception from taglib for track: %s what %s", path.c_str(), e.what());
    }
    return true;
}

boost::shared_ptr<Block<MetaDataInfo*>> MSDMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    ZQLOG_INFO("MSDMiner for: %u (op: %d)", unsigned(in->items.size()), in->operation.id);
    Timer timer;
    silenceTagLib();

    boost::shared_ptr<Block<MetaDataInfo*>> out(new Block<MetaDataInfo*>());
    out->operation = in->operation;

    DatabaseMgr& mgr = DatabaseMgr::instance();
    if (mgr.dbSizeHasReachLimit(mgr.getDbNameFromDevId(in->operation.deviceId))) {
        ZQLOG_INFO("MSDMiner SKIPPED db size limit reached (op: %d)", in->operation.id);
        return out;
    }

    // The files a window ahead are announced to the kernel, so that their
    // reads are under way while this one is parsed.
    std::vector<FileInfo*>& files = in->items;
    auto announce = [&files](size_t index) {
        if (index < files.size() && files[index] && files[index]->path)
            ReadAhead::hint(*files[index]->path);
    };
    for (size_t index = 0; index < kReadAheadFiles; ++index)
        announce(index);
    for (size_t index = 0; index < files.size(); ++index) {
        announce(index + kReadAheadFiles);
        FileInfo* file = files[index];
        if (!file || !file->path)
            continue;
        const std::string& path = *file->path;
        if (fileHook)
            fileHook(path);
        // Checked before each file: a stick unmounted with its folder kept
        // makes every later file fail to open, not the mount point.
        if (goneOperation == in->operation.id || MountPointCheck::lost(in->operation)) {
            markGone(out->operation);
            break;
        }
        if (!readTrack(*file, in->operation, out->items)) {
            markGone(out->operation);
            break;
        }
    }

    ZQLOG_INFO("MSDMiner timer: %ld (op: %d)", timer.stop(), in->operation.id);
    return out;
}

}  // namespace kestrow
