// The coding-data guess on arbitrary field bytes. The first byte says which
// fields are set and which claim UTF-8 rather than Latin-1; the rest is cut
// into up to five fields at 0xFF bytes. Every text that comes out must be
// valid UTF-8, and a field is set after the guess exactly when it was before.
#include <glib.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/FuzzFile.h"
#include "platform/codingdata/CodingData.h"

namespace {

typedef int (*Setter)(Track*, const char*, size_t, const char*);
const Setter kSetters[] = {setTrackTitle, setTrackAlbum, setTrackArtist, setTrackComposer,
                           setTrackGenre};

TrackField* fieldOf(Track* t, int i) {
    TrackField* fields[] = {&t->title, &t->album, &t->artist, &t->composer, &t->genre};
    return fields[i];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const unsigned flags = data[0];
    std::vector<std::string> texts(1);
    for (size_t i = 1; i < size; ++i) {
        if (data[i] == 0xFF && texts.size() < 5)
            texts.emplace_back();
        else
            texts.back() += char(data[i]);
    }

    Track track;
    initTrack(&track);
    for (size_t i = 0; i < texts.size(); ++i)
        kSetters[i](&track, texts[i].data(), texts[i].size(),
                    flags & (1u << i) ? "UTF-8" : "ISO-8859-1");
    Track* converted = guess_and_convert_by_prio(&track, flags & 0x80 ? nullptr : "ISO-8859-1");
    if (!converted)
        abort();
    for (int i = 0; i < 5; ++i) {
        const TrackField* in = fieldOf(&track, i);
        const TrackField* out = fieldOf(converted, i);
        if (!in->data != !out->data)
            abort();
        if (out->data) {
            if (!olvane::fuzz::isUtf8(out->data, out->length))
                abort();
            isMetadataEmptyUTF8(out->data, out->length);
        }
    }
    destroyTrack(converted);
    free(converted);
    destroyTrack(&track);

    const std::string pool(reinterpret_cast<const char*>(data), size);
    if (!guessCharset(pool.data(), pool.size()))
        abort();
    return 0;
}
