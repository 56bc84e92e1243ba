#pragma once
// Text ids that join the index tables: 32 lowercase hex digits of the MD5
// digest of the kind's canonical form of a text.

#include <string>

class Md5 {
public:
    enum Kind {
        SONG = 0,       // a song's path; leading '/' characters are ignored
        DIRECTORY = 1,  // a directory's path or a mount point, as given
        ARTIST = 2,     // a name, case-folded and NFC-normalised
        ALBUM = 3,      // album name and artist, case-folded and NFC-normalised
        GENRE = 4,      // as ARTIST
        COMPOSER = 5,   // as ARTIST
        PLAYLIST = 6,   // a playlist's path, as given
    };

    Md5() = default;
    Md5(Kind kind, const std::string& text);

    const std::string& toString() const { return hex_; }
    const char* c_str() const { return hex_.c_str(); }
    bool operator==(const Md5& o) const { return hex_ == o.hex_; }
    bool operator!=(const Md5& o) const { return hex_ != o.hex_; }
    bool operator<(const Md5& o) const { return hex_ < o.hex_; }

    // The text that is digested for `kind`.
    static std::string canonical(Kind kind, const std::string& text);

private:
    std::string hex_;
};
