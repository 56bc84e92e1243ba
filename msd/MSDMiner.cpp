#include "msd/MSDMiner.h"

#include <sys/stat.h>
#include <taglib/audioproperties.h>
#include <taglib/fileref.h>
#include <taglib/tfile.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <streambuf>

#include "db/Timer.h"
#include "msd/Encoder.h"
#include "platform/common/DatabaseMgr.h"

namespace kestrow {

namespace {

// Sends the standard error stream (std::cerr, where TagLib writes its
// diagnostics) to a null stream for its lifetime. The file descriptor is left
// alone, so the log's stderr mirror and the host's own output still work.
class SilentStderr {
public:
    SilentStderr() : saved_(std::cerr.rdbuf(&null_)) {}
    ~SilentStderr() { std::cerr.rdbuf(saved_); }
    SilentStderr(const SilentStderr&) = delete;
    SilentStderr& operator=(const SilentStderr&) = delete;

private:
    struct NullBuffer : std::streambuf {
        int overflow(int c) override { return traits_type::not_eof(c); }
    };
    NullBuffer null_;
    std::streambuf* saved_;
};

}  // namespace

MSDMiner::MSDMiner(const char* name_) : Server<Block<FileInfo*>, Block<MetaDataInfo*>>(name_) {}

boost::shared_ptr<Block<MetaDataInfo*>> MSDMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    ZQLOG_INFO("MSDMiner for: %u (op: %d)", unsigned(in->items.size()), in->operation.id);
    Timer timer;
    SilentStderr silent;

    boost::shared_ptr<Block<MetaDataInfo*>> out(new Block<MetaDataInfo*>());
    out->operation = in->operation;

    DatabaseMgr& mgr = DatabaseMgr::instance();
    if (mgr.dbSizeHasReachLimit(mgr.getDbNameFromDevId(in->operation.deviceId))) {
        ZQLOG_INFO("MSDMiner SKIPPED db size limit reached (op: %d)", in->operation.id);
        return out;
    }

    const std::string& mountPoint = in->operation.mountPoint;
    for (FileInfo* file : in->items) {
        if (!file || !file->path)
            continue;
        const std::string& path = *file->path;
        try {
            TagLib::FileRef ref(path.c_str(), true, TagLib::AudioProperties::Average);
            if (ref.isNull()) {
                ZQLOG_INFO("NULL file for track: %s", path.c_str());
                struct stat st;
                if (stat(mountPoint.c_str(), &st) != 0) {
                    ZQLOG_ERROR("MOUNT POINT IS NOT PRESENT ANYMORE %s: %d", mountPoint.c_str(),
                                errno);
                    out->operation.deviceGone = true;
                    break;
                }
                ZQLOG_INFO("insert empty: %s", path.c_str());
                out->items.push_back(new MetaDataInfo(path, mountPoint, std::string(),
                                                      std::string(), std::string(), std::string(),
                                                      std::string(), 1, 1, file->lastModified));
                continue;
            }
            const TagLib::Tag* tag = ref.tag();
            if (!tag)
                continue;
            MetaDataInfo* info = Encoder::instance().guessAndConvert(
                path, mountPoint, file->lastModified, tag, ref.file()->properties());
            if (!info) {
                ZQLOG_ERROR("invalid encoding");
                continue;
            }
            info->setAsianFields();
            out->items.push_back(info);
        } catch (const std::exception& e) {
            ZQLOG_ERROR("exception from taglib for track: %s what %s", path.c_str(), e.what());
        }
    }

    ZQLOG_INFO("MSDMiner timer: %ld (op: %d)", timer.stop(), in->operation.id);
    return out;
}

}  // namespace kestrow
