#pragma once

#include <string>
#include <vector>

namespace kestrow {

// The text of a playlist file whose entries are one line each (m3u, pls),
// read as a player reads it: a UTF-8 byte order mark is skipped, CRLF, CR
// and LF all end a line, blanks around an entry are dropped, and a file that
// is not UTF-8 is taken to be in the legacy code page of the player that
// wrote it, guessed over the whole file as tag texts are. Entries come out
// in UTF-8, each still as written (relative, "\", drive, URI...).
// Not thread-safe; a value type.
class PlaylistText {
public:
    // One entry: `text` in UTF-8, `asWritten` with the file's own bytes (the
    // same text, unless the file is not UTF-8).
    struct Entry {
        std::string text;
        std::string asWritten;
    };

    // Reads the whole file; a file that cannot be read is logged and empty.
    explicit PlaylistText(const std::string& path);

    // Whether the text starts with the "[playlist]" heading of a pls file.
    bool isPls() const;
    // The lines that are neither empty nor comments ("#EXTM3U", "#EXTINF...").
    std::vector<Entry> m3uEntries() const;
    // The values of the "File<n>" keys, ordered by n.
    std::vector<Entry> plsEntries() const;

private:
    std::vector<Entry> lines() const;

    std::string bytes_;  // as read, without the byte order mark
};

}  // namespace kestrow
