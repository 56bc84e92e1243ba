#pragma once

#include <taglib/tag.h>
#include <taglib/tpropertymap.h>

#include <string>

#include "platform/common/MetaDataInfo.h"

namespace kestrow {

// Turns the texts of one tag into UTF-8, guessing the code page of texts
// stored as Latin-1, and builds the song's record. Stateless; the one
// instance is made on first use and may be used from any thread.
class Encoder {
public:
    static Encoder& instance();

    // Returns a new record owned by the caller (never null today; null would
    // mean the texts could not be made valid). Composer and disc number are
    // not in TagLib's Tag: they come from `properties` (COMPOSER, DISCNUMBER);
    // the overload without it leaves them empty and 0.
    MetaDataInfo* guessAndConvert(const std::string& path, const std::string& mountPoint,
                                  int64_t lastModified, const TagLib::Tag* tag);
    MetaDataInfo* guessAndConvert(const std::string& path, const std::string& mountPoint,
                                  int64_t lastModified, const TagLib::Tag* tag,
                                  const TagLib::PropertyMap& properties);

    // The leading number of a text such as "2/3" (2); 0 when there is none.
    static int leadingNumber(const TagLib::String& text);

private:
    Encoder() = default;
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;
};

}  // namespace kestrow
