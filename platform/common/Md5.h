#pragma once
// Text ids that join the index tables: 32 lowercase hex digits of the MD5
// digest (GLib's GChecksum) of the kind's canonical form of a text. A
// default-made Md5 is empty. The whole index relies on these rules:
//   SONGS.OBJECTID, PLAYLISTS.TRACKID    kind 0 of the song's path. Leading
//       '/' are ignored: a playlist entry "media/usb/a.mp3" (parsed from
//       "file:///media/usb/a.mp3") names the song "/media/usb/a.mp3".
//   DIRECTORIES.OBJECTID, PARENT_ID      kind 1 of the directory's path;
//   SONGS.DIRECTORYID                    kind 1 of the path of the song's
//       directory, so it equals that directory's OBJECTID.
//   PARTITION_ID                         kind 1 of the mount point.
//   ARTISTID, GENREID, COMPOSERID        kinds 2, 4, 5 of the name, NFC and
//       case-folded: "ABBA" and "Abba" are one artist.
//   ALBUMID                              kind 3 of album, '\x1f', artist
//       (MetaDataInfo): two artists' "Greatest Hits" are two albums.
//   PLAYLISTS.PLAYID                     kind 6 of the playlist's path.

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
