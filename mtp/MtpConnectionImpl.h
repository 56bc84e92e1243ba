#pragma once

#include <string>

#include "mtp/MtpConnection.h"

namespace kestrow {

// The body of MtpConnection: every public operation of MtpConnection has its
// namesake here; the others are the steps they are made of, public for the
// connection's tests. Same threading and ownership rules as MtpConnection.
class MtpConnection::Impl {
public:
    // Tries of a busy call: the first and 80 repeats, one second apart.
    static constexpr int kBusyRetries = 80;
    // Tracks taken from one device at most.
    static constexpr unsigned kTrackLimit = 16000;

    static void setSleepFunction(SleepFunction sleep);
    static void sleep(unsigned microseconds);

    Impl(unsigned handle, const std::string& deviceId);

    bool loadDeviceData(t_playlist_items_list& tracks, t_playlist_items_list& playlists);
    bool crawlMtpDevice();
    void MTPCreateDirCache(std::vector<std::string>& dirs, t_playlist_items_list& tracks);
    MtpDirectory* generateDirectory(const std::string& path, const std::string& partition,
                                    const std::string& root);
    std::string getTrackFilePath(unsigned trackId);
    MetaDataInfo* generateTrack(const std::string& unused, const std::string& parent, t_track_id id,
                                time_t modified);
    Playlist* generatePlaylist(const std::string& deviceId, const std::string& partition,
                               size_t playlistId);
    time_t getTrackDateModifiedEpoch(unsigned trackId);
    std::string getPlaylistPath(unsigned playlistId);

    // Logs a failed call's status; nothing else.
    void checkStatus(const std::string& method, t_status status);
    unsigned getNumElements(t_content_categories category);
    t_playlist_items_list getPlaylistElements(t_content_categories category, int count);
    t_playlist_items_list getPlaylistContent(unsigned playlistId);
    std::string getTrackDateModified(unsigned trackId);
    std::string getTrackGenre(unsigned trackId);
    std::string getTrackArtist(unsigned trackId);
    std::string getTrackAlbum(unsigned trackId);
    std::string getTrackComposer(unsigned trackId);
    std::string getTrackFileName(unsigned trackId);
    std::string getTrackTitle(unsigned trackId);
    unsigned long long getTrackFileSize(unsigned trackId);
    unsigned short getTrackNumber(unsigned trackId);
    std::string getMTPTrackId(unsigned trackId, const std::string& deviceId);
    // The folder listing calls, retried while the library is busy.
    t_status SafeGetNumItems(t_handle handle, const t_mtp_container& container,
                             const t_mtp_item_type& type, unsigned& count);
    t_status SafeGetItems(t_handle handle, const t_mtp_container& container,
                          const t_mtp_item_type& type, const unsigned& start, const unsigned& count,
                          t_mtp_item_list& list);
    static bool isHiddenFile(std::string path);
    static bool isExcludedFile(const std::string& name);
    // For a folder at the top of a storage.
    static bool isDirectoryBlacklisted(std::string name);
    // Lists the folder `parent` (0: the top) of `storage` and, depth first,
    // every folder below it; false when the device went away or the handle
    // is refused.
    bool MTPFileTree(int handle, const int& storage, const int& parent, bool isRoot);

private:
    // A device text into a buffer of PORTOLAN_TEXT_SIZE; `fallback` when the
    // call fails or the text is blank.
    std::string trackText(t_status (*call)(t_handle, t_track_id, char*), const char* name,
                          unsigned trackId, const char* fallback);

    t_handle handle;
    const std::string& deviceId;
};

}  // namespace kestrow
