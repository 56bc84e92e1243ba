#pragma once

#include <string>

#include "platform/common/Md5.h"

namespace kestrow {

// One track of a playlist. Owned by its Playlist.
struct PlaylistEntry {
    // `path` is the track's path for a file entry and the song id for an MTP
    // entry; `id` is Md5 kind 0 of it either way.
    PlaylistEntry(const std::string& path, int isMtp);

    std::string path;
    Md5 id;
    int isMtp;  // 0 parsed from a file, 1 from an MTP device
};

}  // namespace kestrow
