#include "mtp/MtpPlaylistMiner.h"

#include "mtp/MtpConnection.h"
#include "mtp/MtpDevice.h"

namespace kestrow {

MtpPlaylistMiner::MtpPlaylistMiner(const char* name_)
    : Server<Block<FileInfo*>, Block<Playlist*>>(name_) {}

boost::shared_ptr<Block<Playlist*>> MtpPlaylistMiner::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    const Operation& op = in->operation;
    ZQLOG_INFO("MtpPlaylistMiner for: %u (op: %d) MP: %s ", unsigned(in->items.size()), op.id,
               op.mountPoint.c_str());
    boost::shared_ptr<Block<Playlist*>> out(new Block<Playlist*>());
    out->operation = op;
    MtpConnection connection(op.handle, op.deviceId);
    for (const FileInfo* file : in->items) {
        if (!MtpDevice::instance().isDeviceConnected(op.handle))
            break;
        if (!file)
            continue;
        if (Playlist* playlist =
                connection.generatePlaylist(op.deviceId, op.mountPoint, file->reserved))
            out->items.push_back(playlist);
    }
    // Playlists may be missing: the database does not hold the whole device.
    if (!MtpDevice::instance().isDeviceConnected(op.handle))
        out->operation.deviceGone = true;
    ZQLOG_INFO("MtpPlaylistMiner done (op: %d)", op.id);
    return out;
}

}  // namespace kestrow
