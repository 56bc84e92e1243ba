#include "mtp/MtpMiner.h"

#include <exception>

#include "db/Timer.h"
#include "mtp/MtpConnection.h"
#include "mtp/MtpDevice.h"
#include "platform/common/DatabaseMgr.h"

namespace kestrow {

MtpMiner::MtpMiner(const char* name_) : Server<Block<FileInfo*>, Block<MetaDataInfo*>>(name_) {}

boost::shared_ptr<Block<MetaDataInfo*>> MtpMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    const Operation& op = in->operation;
    ZQLOG_INFO("MtpMiner for: %u (op: %d) MP: %s", unsigned(in->items.size()), op.id,
               op.mountPoint.c_str());
    boost::shared_ptr<Block<MetaDataInfo*>> out(new Block<MetaDataInfo*>());
    out->operation = op;
    out->items.assign(in->items.size(), nullptr);

    Timer timer;
    DatabaseMgr& mgr = DatabaseMgr::instance();
    if (mgr.dbSizeHasReachLimit(mgr.getDbNameFromDevId(op.deviceId))) {
        ZQLOG_INFO("MtpMiner SKIPPED db size limit reached (op: %d)", op.id);
        return out;
    }

    MtpConnection connection(op.handle, op.deviceId);
    size_t next = 0;
    for (const FileInfo* file : in->items) {
        if (!MtpDevice::instance().isDeviceConnected(op.handle))
            break;
        if (!file || !file->path)
            continue;
        try {
            MetaDataInfo* song = connection.generateTrack(
                *file->path, op.mountPoint, file->reserved, time_t(file->lastModified));
            if (song) {
                song->setAsianFields();
                out->items[next++] = song;
            }
        } catch (const std::exception& e) {
            ZQLOG_ERROR("exception from taglib for track: %s what %s", file->path->c_str(),
                        e.what());
        }
    }

    // Songs may be missing: the database does not hold the whole device.
    if (!MtpDevice::instance().isDeviceConnected(op.handle))
        out->operation.deviceGone = true;
    ZQLOG_INFO("MtpMiner timer: %ld (op: %d)", timer.stop(), op.id);
    return out;
}

}  // namespace kestrow
