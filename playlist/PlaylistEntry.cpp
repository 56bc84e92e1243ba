#include "playlist/PlaylistEntry.h"

namespace kestrow {

PlaylistEntry::PlaylistEntry(const std::string& path_, int isMtp_)
    : path(path_), id(Md5::SONG, path_), isMtp(isMtp_) {}

}  // namespace kestrow
