#pragma once
// One song as the song saver writes it. Texts are UTF-8; ids are Md5 texts
// made by the constructors (rules in Md5.h): objectId kind 0 of the path
// (MTP: the given song id), directoryId kind 1 of the path before its last
// '/', partitionId kind 1 of the mount point, artist/genre/composer ids of
// the names, albumId of album and artist together. audioType comes from the
// path's extension, bookmark is 0, the Asian readings are empty until
// setAsianFields(). Owned by the block that carries it.

#include <cstdint>
#include <string>

#include "platform/common/StrippedValue.h"

class MetaDataInfo {
public:
    // Mass storage, from raw texts and from trimmed ones.
    MetaDataInfo(const std::string& path, const std::string& mountPoint, const std::string& title,
                 const std::string& artist, const std::string& album, const std::string& genre,
                 const std::string& composer, int trackNumber, int discNumber,
                 int64_t lastModified);
    MetaDataInfo(const std::string& path, const std::string& mountPoint, const StrippedValue& title,
                 const StrippedValue& artist, const StrippedValue& album,
                 const StrippedValue& genre, const StrippedValue& composer, int trackNumber,
                 int discNumber, int64_t lastModified);
    // MTP: `parent` is the partition text; `songId` is the song's object id.
    MetaDataInfo(const std::string& path, const std::string& parent, const std::string& title,
                 const std::string& artist, const std::string& album, const std::string& genre,
                 const std::string& composer, int trackNumber, int discNumber, int64_t lastModified,
                 const std::string& songId);

    // Fills the Asian readings of title, artist, album, genre and composer.
    // Thread-safe: the one process-wide transliterator is used under a lock.
    void setAsianFields();
    // ASCII Latin transliteration (ICU "Any-Latin; Latin-ASCII") of UTF-8
    // text holding Han, Hiragana, Katakana or Hangul; "" for other text.
    static std::string asianReading(const std::string& text);
    // Starts building the transliterator (about 0.1 s of work, once per
    // process) on a thread of its own, rather than when the first Asian text
    // is met; the thread is joined at exit. Returns at once. Thread-safe.
    static void prepareAsianReading();

    // Audio type codes, from the file's extension.
    enum AudioType {
        AUDIO_UNKNOWN = 0,
        AUDIO_MP3 = 1,
        AUDIO_AAC = 2,  // .m4a .m4b .m4p .m4r .mp4 .aac
        AUDIO_WMA = 3,  // .wma .asf
        AUDIO_WAV = 4,
        AUDIO_FLAC = 5,
        AUDIO_MPEG = 6,  // .mpg .mpeg
    };
    static int audioTypeFromPath(const std::string& path);
    // The folder of a path as the crawler names it ("/" for "/a", "" for a
    // path without '/'), and its last component.
    static std::string directoryOf(const std::string& path);
    static std::string lastComponent(const std::string& path);

    std::string path;
    std::string mountPoint;
    std::string partitionId;  // Md5 kind 1 of the mount point
    std::string objectId;     // Md5 kind 0 of the path (MTP: the song id)
    std::string directoryId;  // Md5 kind 1 of the path's directory
    std::string name;         // last component of the path
    std::string title;
    std::string artist;
    std::string album;
    std::string genre;
    std::string composer;
    std::string artistId;
    std::string albumId;
    std::string genreId;
    std::string composerId;
    std::string asianTitle;
    std::string asianArtist;
    std::string asianAlbum;
    std::string asianGenre;
    std::string asianComposer;
    int audioType = AUDIO_UNKNOWN;
    int bookmark = 0;
    int64_t lastModified = 0;  // seconds, 64 bits wide so that times after 2038 do not wrap
    int trackNumber = 0;
    int discNumber = 0;

private:
    void init(const std::string& path, const std::string& partition, const std::string& title,
              const std::string& artist, const std::string& album, const std::string& genre,
              const std::string& composer, int trackNumber, int discNumber, int64_t lastModified);
};
