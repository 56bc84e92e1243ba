#pragma once

#include <string>
#include <utility>
#include <vector>

namespace olvane {
namespace tool {

// What `olvane-indexer show` prints about one device's database.
struct DatabaseSummary {
    std::string deviceId;
    std::string file;
    long long songs = 0, artists = 0, albums = 0, genres = 0, composers = 0, playlists = 0,
              directories = 0;
    std::vector<std::pair<std::string, std::string>> statuses;  // mount point, status

    // Reads the device's database without changing it. False with `error`
    // set when there is no readable database for the device.
    static bool load(const std::string& deviceId, DatabaseSummary& out, std::string& error);
    // Songs under one mount point (for the progress line); -1 when unreadable.
    static long long songsUnder(const std::string& deviceId, const std::string& mountPoint);

    std::string plain() const;
    std::string json() const;
};

}  // namespace tool
}  // namespace olvane
