#pragma once

#include <string>

#include "platform/common/Md5.h"

namespace kestrow {

// One directory of a mass-storage device, as the crawler finds it.
struct Directory {
    // `parentIndex` is the position of the parent in the crawler's directory
    // list, -1 for the root (the mount point).
    Directory(const std::string& path, const std::string& mountPoint, int parentIndex);

    std::string path;  // absolute
    std::string name;  // after the last '/'
    Md5 partitionId;   // kind 1 of the mount point
    Md5 objectId;      // kind 1 of path
    int parentIndex;
    bool hasMusic;  // an audio file lies directly in it (after propagation: below it)
};

}  // namespace kestrow
