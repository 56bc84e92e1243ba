#include "mtp/MtpCrawler.h"

#include <QString>
#include <cstdlib>
#include <string>
#include <vector>

#include "db/Timer.h"
#include "facade/KestrowQTProxy.h"
#include "mtp/MtpConnection.h"
#include "mtp/MtpDevice.h"
#include "platform/mtputils/MtpUtils.h"

namespace kestrow {

namespace {

void freeList(t_playlist_items_list& list) {
    for (unsigned i = 0; i < list.count; ++i)
        std::free(list.items[i].name);
    std::free(list.items);
    list.count = 0;
    list.items = nullptr;
}

}  // namespace

MtpCrawler::MtpCrawler(const char* name_)
    : Server<Block<Directory*>, Block<FileInfo*>>(name_),
      playlistSink(nullptr),
      directorySink(nullptr) {}

void MtpCrawler::setPlaylistSink(BaseServer<Block<FileInfo*>>* sink) {
    playlistSink = sink;
}

void MtpCrawler::setDirectorySink(BaseServer<Block<MtpDirectory*>>* sink) {
    directorySink = sink;
}

boost::shared_ptr<Block<FileInfo*>> MtpCrawler::doOperation(
    boost::shared_ptr<Block<Directory*>> in) {
    const Operation& op = in->operation;
    ZQLOG_INFO("MtpCrawler for: %s (op:%d)", in->items.at(0)->path.c_str(), op.id);
    Timer timer;

    boost::shared_ptr<Block<FileInfo*>> tracks(new Block<FileInfo*>());
    tracks->operation = op;
    boost::shared_ptr<Block<FileInfo*>> playlists(new Block<FileInfo*>());
    playlists->operation = op;
    boost::shared_ptr<Block<MtpDirectory*>> folders(new Block<MtpDirectory*>());
    folders->operation = op;

    MtpDevice& registry = MtpDevice::instance();
    registry.setDeviceConnected(op.handle);
    MtpConnection connection(op.handle, op.deviceId);
    connection.crawlMtpDevice();  // a failed walk only leaves fewer paths known

    t_playlist_items_list trackList = {0, nullptr}, playlistList = {0, nullptr};
    bool loaded = false;
    if (!registry.waitDeviceReady(op.handle)) {
        ZQLOG_ERROR("wait returned false");
    } else if (!connection.loadDeviceData(trackList, playlistList)) {
        ZQLOG_ERROR("loadData Failed");
    } else {
        loaded = true;
    }

    if (loaded) {
        ZQLOG_INFO("GOT back %u mtp tracks", trackList.count);
        unsigned i;
        for (i = 0; i < trackList.count && registry.isDeviceReady(op.handle); ++i) {
            if (i % 100 == 0)
                ZQLOG_INFO("Craweled track %u/%u", i, trackList.count);
            const t_track_id id = trackList.items[i].id;
            const std::string rawPath = connection.getTrackFilePath(id);
            // Left out: a track whose folder was not walked has no path to
            // index, and hidden and Ogg tracks are never stored, so they are
            // not counted as new at every indexing.
            if (rawPath.empty() || connection.isLeftOut(rawPath))
                continue;
            // The device's time of the track, where 0 was stored: a track
            // changed on the phone is read again.
            tracks->items.push_back(
                new FileInfo(MtpUtils::getPathForMtpTrack(id, op.deviceId, rawPath), id,
                             connection.getTrackDateModifiedEpoch(id)));
        }
        for (i = 0; i < playlistList.count && registry.isDeviceReady(op.handle); ++i) {
            if (i % 100 == 0)
                ZQLOG_INFO("Craweled playlists %u/%u", i, playlistList.count);
            const t_track_id id = playlistList.items[i].id;
            // The path and time the playlist is stored under, so that an
            // unchanged one is not written again.
            playlists->items.push_back(new FileInfo(
                MtpUtils::getPathForMtpTrack(id, op.deviceId, connection.getPlaylistPath(id)), id,
                connection.getTrackDateModifiedEpoch(id)));
        }
        std::vector<std::string> dirs;
        connection.MTPCreateDirCache(dirs, trackList);
        for (size_t d = 0; d < dirs.size() && registry.isDeviceReady(op.handle); ++d) {
            if (MtpDirectory* folder =
                    connection.generateDirectory(dirs[d], op.mountPoint, op.deviceId))
                folders->items.push_back(folder);
        }
    }
    // Every name is freed with its list, those a stopped walk did not reach too.
    freeList(trackList);
    freeList(playlistList);

    // A catalogue not loaded counts as a device gone, also when an unplugged
    // device was announced ready after all: nothing may be deleted for it.
    if (!loaded || !registry.isDeviceReady(op.handle)) {
        if (!registry.isDeviceReady(op.handle))
            ZQLOG_WARN("setInterrupted device is not ready");
        tracks->operation.deviceGone = true;
        playlists->operation.deviceGone = true;
        folders->operation.deviceGone = true;
    }

    playlists->operation.lastBlock = true;
    folders->operation.lastBlock = true;
    if (playlistSink)
        playlistSink->enqueue(playlists);
    if (directorySink)
        directorySink->enqueue(folders);

    ZQLOG_INFO("MtpCrawler timer: %ld (op:%d) found %u", timer.stop(), op.id,
               unsigned(tracks->items.size()));
    return tracks;
}

void MtpCrawler::signalCompletion(const Operation& op) {
    if (state == Runnable::kRunning) {
        emit KestrowQTProxy::instance().crawlingFinished(QString::fromUtf8(op.mountPoint.c_str()));
    }
}

}  // namespace kestrow
