#include "msd/Encoder.h"

#include <cstdlib>

#include "platform/codingdata/CodingData.h"
#include "platform/common/StrippedValue.h"

namespace kestrow {

namespace {

typedef int (*Setter)(Track*, const char*, size_t, const char*);

void setField(Track* track, Setter set, const TagLib::String& text) {
    if (text.isEmpty())
        return;
    if (text.isLatin1()) {
        set(track, text.toCString(false), text.size(), "ISO-8859-1");
    } else {
        std::string utf8 = text.to8Bit(true);
        set(track, utf8.data(), utf8.size(), "UTF-8");
    }
}

StrippedValue strippedOf(const TrackField& field) {
    if (!field.data || isMetadataEmptyUTF8(field.data, field.length))
        return StrippedValue();
    return trim(std::string(field.data, field.length));
}

std::string stripBlanks(const std::string& text) {
    size_t begin = text.find_first_not_of(' ');
    if (begin == std::string::npos)
        return std::string();
    return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

TagLib::String firstValue(const TagLib::PropertyMap& properties, const char* key) {
    TagLib::PropertyMap::ConstIterator it = properties.find(key);
    if (it == properties.end() || it->second.isEmpty())
        return TagLib::String();
    return it->second.front();
}

}  // namespace

Encoder& Encoder::instance() {
    static Encoder encoder;
    return encoder;
}

int Encoder::leadingNumber(const TagLib::String& text) {
    std::string s = text.to8Bit(true);
    size_t i = s.find_first_not_of(' ');
    if (i == std::string::npos || s[i] < '0' || s[i] > '9')
        return 0;
    long n = std::strtol(s.c_str() + i, nullptr, 10);
    return n > 0 && n < 100000 ? int(n) : 0;
}

MetaDataInfo* Encoder::guessAndConvert(const std::string& path, const std::string& mountPoint,
                                       int64_t lastModified, const TagLib::Tag* tag) {
    return guessAndConvert(path, mountPoint, lastModified, tag, TagLib::PropertyMap());
}

MetaDataInfo* Encoder::guessAndConvert(const std::string& path, const std::string& mountPoint,
                                       int64_t lastModified, const TagLib::Tag* tag,
                                       const TagLib::PropertyMap& properties) {
    if (!tag)
        return nullptr;
    const TagLib::String composer = firstValue(properties, "COMPOSER");
    int trackNumber = int(tag->track());
    if (trackNumber == 0)
        trackNumber = leadingNumber(firstValue(properties, "TRACKNUMBER"));
    const int discNumber = leadingNumber(firstValue(properties, "DISCNUMBER"));

    Track track;
    initTrack(&track);
    setField(&track, setTrackTitle, tag->title());
    setField(&track, setTrackAlbum, tag->album());
    setField(&track, setTrackArtist, tag->artist());
    setField(&track, setTrackComposer, composer);
    setField(&track, setTrackGenre, tag->genre());

    MetaDataInfo* info = nullptr;
    Track* converted = guess_and_convert_by_prio(&track, "ISO-8859-1");
    if (converted) {
        info = new MetaDataInfo(path, mountPoint, strippedOf(converted->title),
                                strippedOf(converted->artist), strippedOf(converted->album),
                                strippedOf(converted->genre), strippedOf(converted->composer),
                                trackNumber, discNumber, lastModified);
        destroyTrack(converted);
        free(converted);
    } else {
        info = new MetaDataInfo(
            path, mountPoint, stripBlanks(tag->title().to8Bit(true)),
            stripBlanks(tag->artist().to8Bit(true)), stripBlanks(tag->album().to8Bit(true)),
            stripBlanks(tag->genre().to8Bit(true)), stripBlanks(composer.to8Bit(true)), trackNumber,
            discNumber, lastModified);
    }
    destroyTrack(&track);
    return info;
}

}  // namespace kestrow
