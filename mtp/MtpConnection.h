#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "platform/portolan/Portolan.h"

class MetaDataInfo;

namespace kestrow {

struct MtpDirectory;
struct Playlist;

// The indexer's one way to an MTP device: the device-access library's calls
// and MtpUtils, with their failures logged and mapped to default results
// (nothing throws on a library failure), a busy library retried, the device's
// folder tree walked, and the records of tracks, playlists and folders built.
// Long operations stop at the next check once the MtpDevice registry reports
// the device gone.
//
// Cheap; made per operation and used by one thread at a time. `deviceId` is
// borrowed: the caller keeps it alive as long as the connection. Returned
// records and lists belong to the caller: every word-0 pointer of a list,
// and the list's array, are released with free.
class MtpConnection {
public:
    class Impl;

    // How the connection pauses between tries of a busy library, in
    // microseconds (usleep unless set). For tests; null restores usleep.
    typedef void (*SleepFunction)(unsigned microseconds);
    static void setSleepFunction(SleepFunction sleep);

    MtpConnection(unsigned handle, const std::string& deviceId);
    ~MtpConnection();
    MtpConnection(const MtpConnection&) = delete;
    MtpConnection& operator=(const MtpConnection&) = delete;

    // The device's tracks (at most 16000) and playlists; false when the
    // device is gone or cannot be counted.
    bool loadDeviceData(t_playlist_items_list& tracks, t_playlist_items_list& playlists);
    // Lists every folder of every storage so that the library knows the
    // paths below them; false when the walk failed or the device went away.
    bool crawlMtpDevice();
    // Every ancestor folder of the indexable tracks, each before its own
    // ancestors, in order of first appearance.
    void MTPCreateDirCache(std::vector<std::string>& dirs, t_playlist_items_list& tracks);
    MtpDirectory* generateDirectory(const std::string& path, const std::string& partition,
                                    const std::string& root);
    // The track's raw path; "" when the library does not know it.
    std::string getTrackFilePath(unsigned trackId);
    // Whether a track at this raw path is left out: hidden, or Ogg.
    bool isLeftOut(const std::string& rawPath);
    // "mtp-playlist://<id>/<name>", the path a playlist is stored under.
    std::string getPlaylistPath(unsigned playlistId);
    // Null for a hidden, Ogg or unlisted track, or when the device is gone.
    MetaDataInfo* generateTrack(const std::string& unused, const std::string& parent, t_track_id id,
                                time_t modified);
    // Null for an empty playlist or when the device is gone at once.
    Playlist* generatePlaylist(const std::string& deviceId, const std::string& partition,
                               size_t playlistId);
    // The object's modification time on the device, in seconds; 0 when the
    // device does not tell it.
    time_t getTrackDateModifiedEpoch(unsigned trackId);

private:
    Impl* impl;
};

}  // namespace kestrow
