#include "msd/Directory.h"

namespace kestrow {

Directory::Directory(const std::string& path_, const std::string& mountPoint, int parentIndex_)
    : path(path_),
      name(path_.substr(path_.rfind('/') == std::string::npos ? 0 : path_.rfind('/') + 1)),
      partitionId(Md5::DIRECTORY, mountPoint),
      objectId(Md5::DIRECTORY, path_),
      parentIndex(parentIndex_),
      hasMusic(false) {}

}  // namespace kestrow
