#pragma once

#include <string>

namespace kestrow {

// One file found on a device.
struct FileInfo {
    FileInfo(const std::string& path, unsigned reserved, int lastModified);
    FileInfo(const FileInfo&) = delete;
    FileInfo& operator=(const FileInfo&) = delete;
    ~FileInfo();

    std::string* path;  // absolute; owned
    unsigned reserved;  // 0 from the mass-storage crawler; the object id on MTP
    int lastModified;   // seconds
};

}  // namespace kestrow
