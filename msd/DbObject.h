#pragma once

#include <string>

// One row read back by a change finder: a song, or one row of a playlist.
struct DbObject {
    DbObject(int id_, long long lastModified_, const std::string& path_)
        : id(id_), lastModified(lastModified_), path(path_) {}

    int id;                  // ID, the row key
    long long lastModified;  // LASTMODIFIED, seconds; FileInfo::kUnreadTime matches no file
    std::string path;        // PATH, or PLAYPATH for playlists
};
