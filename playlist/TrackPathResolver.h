#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kestrow {

// Turns the entries of one playlist file into the paths that the crawler
// gives the files they name: the mount point, "/", and the path below it,
// so that an entry's Md5 equals its song's OBJECTID. Entries are read as a
// player reads them on the device:
//  - relative ones from the playlist's folder, "\" separating like "/",
//    with "." and ".." collapsed;
//  - root-absolute ones ("/Music/a.mp3", "\Music\a.mp3") from the mount
//    point, unless they already start with it;
//  - a Windows drive ("E:\Music\a.mp3", "E:/Music/a.mp3") is dropped and the
//    rest is root-absolute;
//  - file:// URIs by their unescaped path; any other URI is kept whole.
// An entry that leads above the mount point names nothing on the device and
// is dropped, as are entries naming the mount point itself. Drops are logged.
// Immutable after construction: usable from any thread.
class TrackPathResolver {
public:
    // `playlistPath` as the crawler found it below `mountPoint`.
    TrackPathResolver(const std::string& mountPoint, const std::string& playlistPath);

    // The URI under which the playlist parser is handed the file.
    const std::string& parserUri() const { return parserUri_; }

    // An entry as written in the file, in UTF-8. Empty when dropped.
    std::optional<std::string> fromText(const std::string& text) const;
    // An entry as the parser reports it after reading parserUri(): a URI it
    // resolved against the playlist's folder, or a text it took for one.
    std::optional<std::string> fromParser(const std::string& uri) const;

private:
    std::optional<std::string> fromPath(std::string path) const;
    std::optional<std::string> unescapedFilePath(const std::string& uri) const;

    std::string mountPoint_;
    std::vector<std::string> mountParts_;
    bool belowMount_ = false;               // the playlist lies below the mount point
    std::vector<std::string> folderParts_;  // the playlist's folder below the mount point
    std::string parserFolder_;              // the folder the parser resolves from, with '/'
    std::string parserUri_;
};

}  // namespace kestrow
