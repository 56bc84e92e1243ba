#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/common/Md5.h"
#include "playlist/PlaylistEntry.h"

namespace kestrow {

// One playlist and its tracks in playlist order. Owns its entries.
struct Playlist {
    // `partition` is the mount point for a mass-storage playlist, the
    // partition text for an MTP one; `modified` is the device's time of an
    // MTP playlist.
    Playlist(const std::string& path, const std::string& partition, int64_t modified);
    Playlist(const Playlist&) = delete;
    Playlist& operator=(const Playlist&) = delete;
    ~Playlist();

    std::string path;
    std::string name;                     // after the last '/'
    Md5 id;                               // kind 6 of path
    Md5 partitionId;                      // kind 1 of the partition
    int64_t modified;                     // seconds, from the file's modification time
    std::vector<PlaylistEntry*> entries;  // owned
};

}  // namespace kestrow
