#pragma once

#include <climits>
#include <cstdint>
#include <memory>
#include <string>

namespace kestrow {

// One file found on a device.
struct FileInfo {
    FileInfo(const std::string& path, unsigned reserved, int64_t lastModified);
    FileInfo(const FileInfo&) = delete;
    FileInfo& operator=(const FileInfo&) = delete;

    // The modification time stored for a song whose file could not be read
    // (an I/O or permission error, a vanished file): no file has it, so the
    // change finder passes the file on again at the next indexing.
    static constexpr long long kUnreadTime = LLONG_MIN;

    std::unique_ptr<std::string> path;  // absolute
    unsigned reserved;                  // 0 from the mass-storage crawler; the object id on MTP
    // Seconds, 64 bits wide rather than 32, so that times after 2038 do not wrap.
    int64_t lastModified;
};

}  // namespace kestrow
