#pragma once

#include <climits>
#include <string>

namespace kestrow {

// One file found on a device.
struct FileInfo {
    FileInfo(const std::string& path, unsigned reserved, int lastModified);
    FileInfo(const FileInfo&) = delete;
    FileInfo& operator=(const FileInfo&) = delete;
    ~FileInfo();

    // The modification time stored for a song whose file could not be read
    // (an I/O or permission error, a vanished file): no file has it, so the
    // change finder passes the file on again at the next indexing.
    static constexpr long long kUnreadTime = LLONG_MIN;

    std::string* path;  // absolute; owned
    unsigned reserved;  // 0 from the mass-storage crawler; the object id on MTP
    int lastModified;   // seconds
};

}  // namespace kestrow
