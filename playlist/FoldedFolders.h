#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kestrow {

// Finds the file that a path names on a device the way a player on a system
// that ignores letter case and Unicode forms opens it: folder by folder from
// the mount point, each name of the path standing for the one name of its
// folder that equals it under Unicode case folding (full folding, so "É" and
// "é", "ß" and "ss" and Cyrillic letters match) with both composed (NFC), so
// that a name written on macOS (NFD) finds the file copied from Windows and
// the reverse. A folder holding two such names takes the one spelled as
// written, else the first in byte order. Names that are not UTF-8 match only
// byte for byte.
// Each folder is listed once and its folded names are kept, so one instance
// serves one pass over a device's playlists. Folders outside the mount point
// are never listed, also through a link. Not thread-safe.
class FoldedFolders {
public:
    explicit FoldedFolders(const std::string& mountPoint);

    // The path, spelled as the folders list it, of the file or folder that
    // `path` (the mount point, "/", and the path below it) names on the
    // device. `path` itself when it names a file as it is spelled, which costs
    // one lstat where letter case counts; nullopt when it names nothing.
    std::optional<std::string> find(const std::string& path);

    // Learns from a file that exists as `listedPath` is spelled (a playlist
    // the crawler found) whether the file system opens a name in any letter
    // case (FAT, exFAT, NTFS): there, a path that opens may still be spelled
    // otherwise than the file, and is checked against the listings.
    void learnLetterCase(const std::string& listedPath);

private:
    // One folder's names by their folded form, each list in byte order.
    typedef std::unordered_map<std::string, std::vector<std::string>> Listing;

    // The listing of `folder`, read at the first call; nullptr when it cannot
    // be read or lies outside the mount point.
    const Listing* listing(const std::string& folder);
    // The name of `listing` that `name` stands for; empty when none.
    std::string match(const Listing& listing, const std::string& folder, const std::string& name);

    std::string mountPoint_;
    std::string realMount_;  // the mount point with its links resolved; empty when it has none
    std::optional<bool> ignoresCase_;
    std::unordered_map<std::string, std::optional<Listing>> listings_;
};

}  // namespace kestrow
