#pragma once

#include <string>

namespace kestrow {

// Tells the kernel that the parts of a file a tag reader looks at (its head
// and its tail) will be read soon, so that they are fetched while earlier
// files are read: on a cold cache the disk is never left waiting for the
// next small read. Only asks; never blocks on the file's content, and a file
// that cannot be opened, or is not a regular file, is passed over silently
// (the reader will say why). Thread-safe.
class ReadAhead {
public:
    static const long kHeadBytes = 256 * 1024;
    static const long kTailBytes = 64 * 1024;

    static void hint(const std::string& path);
};

}  // namespace kestrow
