#include "mtp/MtpConnection.h"

#include "mtp/MtpConnectionImpl.h"

namespace kestrow {

void MtpConnection::setSleepFunction(SleepFunction sleep) {
    Impl::setSleepFunction(sleep);
}

MtpConnection::MtpConnection(unsigned handle, const std::string& deviceId)
    : impl(new Impl(handle, deviceId)) {}

MtpConnection::~MtpConnection() {
    delete impl;
}

bool MtpConnection::loadDeviceData(t_playlist_items_list& tracks,
                                   t_playlist_items_list& playlists) {
    return impl->loadDeviceData(tracks, playlists);
}

bool MtpConnection::crawlMtpDevice() {
    return impl->crawlMtpDevice();
}

void MtpConnection::MTPCreateDirCache(std::vector<std::string>& dirs,
                                      t_playlist_items_list& tracks) {
    impl->MTPCreateDirCache(dirs, tracks);
}

MtpDirectory* MtpConnection::generateDirectory(const std::string& path,
                                               const std::string& partition,
                                               const std::string& root) {
    return impl->generateDirectory(path, partition, root);
}

std::string MtpConnection::getTrackFilePath(unsigned trackId) {
    return impl->getTrackFilePath(trackId);
}

MetaDataInfo* MtpConnection::generateTrack(const std::string& unused, const std::string& parent,
                                           t_track_id id, time_t modified) {
    return impl->generateTrack(unused, parent, id, modified);
}

Playlist* MtpConnection::generatePlaylist(const std::string& deviceId, const std::string& partition,
                                          size_t playlistId) {
    return impl->generatePlaylist(deviceId, partition, playlistId);
}

bool MtpConnection::isLeftOut(const std::string& rawPath) {
    return Impl::isHiddenFile(rawPath) || Impl::isExcludedFile(rawPath);
}

std::string MtpConnection::getPlaylistPath(unsigned playlistId) {
    return impl->getPlaylistPath(playlistId);
}

time_t MtpConnection::getTrackDateModifiedEpoch(unsigned trackId) {
    return impl->getTrackDateModifiedEpoch(trackId);
}

}  // namespace kestrow
