#include "playlist/Playlist.h"

namespace kestrow {

Playlist::Playlist(const std::string& path_, const std::string& partition, int64_t modified_)
    : path(path_),
      name(path_.substr(path_.rfind('/') == std::string::npos ? 0 : path_.rfind('/') + 1)),
      id(Md5::PLAYLIST, path_),
      partitionId(Md5::DIRECTORY, partition),
      modified(modified_) {}

Playlist::~Playlist() {
    for (size_t i = 0; i < entries.size(); ++i)
        delete entries[i];
}

}  // namespace kestrow
