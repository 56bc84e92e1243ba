#include "platform/common/MetaDataInfo.h"

#include <strings.h>
#include <unicode/translit.h>
#include <unicode/unistr.h>
#include <unicode/uscript.h>

#include <memory>
#include <mutex>
#include <thread>

#include "platform/common/Md5.h"
#include "platform/log/ZQLog.h"

namespace {

// One transliterator for the process; it is not thread-safe. State below is
// protected by latinMutex.
std::mutex latinMutex;
std::unique_ptr<icu::Transliterator> latin;
bool latinTried = false;

// The thread that builds the transliterator ahead of need. Defined after the
// transliterator, so that at exit it is joined before the transliterator goes.
struct Preparation {
    std::once_flag once;
    std::thread thread;
    ~Preparation() {
        if (thread.joinable())
            thread.join();
    }
} preparation;

}  // namespace

std::string MetaDataInfo::directoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return std::string();
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

std::string MetaDataInfo::lastComponent(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int MetaDataInfo::audioTypeFromPath(const std::string& path) {
    size_t dot = path.rfind('.');
    if (dot == std::string::npos)
        return AUDIO_UNKNOWN;
    const char* ext = path.c_str() + dot;
    struct {
        const char* ext;
        int type;
    } static const table[] = {
        {".mp3", AUDIO_MP3},   {".m4a", AUDIO_AAC}, {".m4b", AUDIO_AAC},   {".m4p", AUDIO_AAC},
        {".m4r", AUDIO_AAC},   {".mp4", AUDIO_AAC}, {".aac", AUDIO_AAC},   {".wma", AUDIO_WMA},
        {".asf", AUDIO_WMA},   {".wav", AUDIO_WAV}, {".flac", AUDIO_FLAC}, {".mpg", AUDIO_MPEG},
        {".mpeg", AUDIO_MPEG},
    };
    for (const auto& e : table)
        if (strcasecmp(ext, e.ext) == 0)
            return e.type;
    return AUDIO_UNKNOWN;
}

void MetaDataInfo::init(const std::string& path_, const std::string& partition,
                        const std::string& title_, const std::string& artist_,
                        const std::string& album_, const std::string& genre_,
                        const std::string& composer_, int trackNumber_, int discNumber_,
                        int64_t lastModified_) {
    path = path_;
    mountPoint = partition;
    partitionId = Md5(Md5::DIRECTORY, partition).toString();
    objectId = Md5(Md5::SONG, path_).toString();
    directoryId = Md5(Md5::DIRECTORY, directoryOf(path_)).toString();
    name = lastComponent(path_);
    title = title_;
    artist = artist_;
    album = album_;
    genre = genre_;
    composer = composer_;
    artistId = Md5(Md5::ARTIST, artist_).toString();
    // Two artists' "Greatest Hits" are two albums.
    albumId = Md5(Md5::ALBUM, album_ + '\x1f' + artist_).toString();
    genreId = Md5(Md5::GENRE, genre_).toString();
    composerId = Md5(Md5::COMPOSER, composer_).toString();
    audioType = audioTypeFromPath(path_);
    bookmark = 0;
    lastModified = lastModified_;
    trackNumber = trackNumber_;
    discNumber = discNumber_;
}

MetaDataInfo::MetaDataInfo(const std::string& path_, const std::string& mountPoint_,
                           const std::string& title_, const std::string& artist_,
                           const std::string& album_, const std::string& genre_,
                           const std::string& composer_, int trackNumber_, int discNumber_,
                           int64_t lastModified_) {
    init(path_, mountPoint_, title_, artist_, album_, genre_, composer_, trackNumber_, discNumber_,
         lastModified_);
}

MetaDataInfo::MetaDataInfo(const std::string& path_, const std::string& mountPoint_,
                           const StrippedValue& title_, const StrippedValue& artist_,
                           const StrippedValue& album_, const StrippedValue& genre_,
                           const StrippedValue& composer_, int trackNumber_, int discNumber_,
                           int64_t lastModified_) {
    init(path_, mountPoint_, title_.str(), artist_.str(), album_.str(), genre_.str(),
         composer_.str(), trackNumber_, discNumber_, lastModified_);
}

MetaDataInfo::MetaDataInfo(const std::string& path_, const std::string& parent,
                           const std::string& title_, const std::string& artist_,
                           const std::string& album_, const std::string& genre_,
                           const std::string& composer_, int trackNumber_, int discNumber_,
                           int64_t lastModified_, const std::string& songId) {
    init(path_, parent, title_, artist_, album_, genre_, composer_, trackNumber_, discNumber_,
         lastModified_);
    objectId = songId;
}

std::string MetaDataInfo::asianReading(const std::string& text) {
    icu::UnicodeString u = icu::UnicodeString::fromUTF8(text);
    bool asian = false;
    for (int32_t i = 0; i < u.length() && !asian; i = u.moveIndex32(i, 1)) {
        UErrorCode err = U_ZERO_ERROR;
        UScriptCode script = uscript_getScript(u.char32At(i), &err);
        asian = U_SUCCESS(err) && (script == USCRIPT_HAN || script == USCRIPT_HIRAGANA ||
                                   script == USCRIPT_KATAKANA || script == USCRIPT_HANGUL);
    }
    if (!asian)
        return std::string();

    std::lock_guard<std::mutex> lock(latinMutex);
    if (!latinTried) {
        latinTried = true;
        UErrorCode err = U_ZERO_ERROR;
        latin.reset(
            icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, err));
        if (U_FAILURE(err) || !latin) {
            ZQLOG_ERROR("no transliterator: %s", u_errorName(err));
            latin.reset();
        }
    }
    if (!latin)
        return std::string();
    latin->transliterate(u);
    std::string out;
    u.toUTF8String(out);
    return trim(out).str();
}

void MetaDataInfo::prepareAsianReading() {
    std::call_once(preparation.once, [] {
        preparation.thread = std::thread([] { asianReading("\xe6\xbc\xa2"); });  // a Han character
    });
}

void MetaDataInfo::setAsianFields() {
    asianTitle = asianReading(title);
    asianArtist = asianReading(artist);
    asianAlbum = asianReading(album);
    asianGenre = asianReading(genre);
    asianComposer = asianReading(composer);
}
