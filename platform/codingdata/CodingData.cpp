#include "platform/codingdata/CodingData.h"

#include <glib.h>
#include <strings.h>
#include <uchardet/uchardet.h>
#include <unicode/ucsdet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/codingdata/CodePages.h"
#include "platform/codingdata/Plausibility.h"
#include "platform/log/ZQLog.h"

using namespace codingdata;

namespace {

bool isAscii(const std::string& bytes) {
    for (unsigned char c : bytes)
        if (c >= 0x80)
            return false;
    return true;
}

// Valid UTF-8 in any case: invalid sequences become U+FFFD.
std::string makeValid(const std::string& bytes) {
    gchar* valid = g_utf8_make_valid(bytes.data(), gssize(bytes.size()));
    std::string out(valid);
    g_free(valid);
    return out;
}

// Converts with any iconv name (texts marked with a character set).
bool convertFrom(const std::string& bytes, const char* charset, std::string& out) {
    int index = codePageIndex(charset);
    if (index >= 0 && strcasecmp(charset, "ISO-8859-1") != 0 && strcasecmp(charset, "LATIN1") != 0)
        return decode(bytes, index, out);
    gsize written = 0;
    gchar* text =
        g_convert(bytes.data(), gssize(bytes.size()), "UTF-8", charset, nullptr, &written, nullptr);
    if (!text)
        return false;
    out.assign(text, written);
    g_free(text);
    return g_utf8_validate(out.data(), gssize(out.size()), nullptr) &&
           out.find('\0') == std::string::npos;
}

int uchardetGuess(const std::string& bytes) {
    uchardet_t ud = uchardet_new();
    if (!ud)
        return -1;
    int index = -1;
    if (uchardet_handle_data(ud, bytes.data(), bytes.size()) == 0) {
        uchardet_data_end(ud);
        index = codePageIndex(uchardet_get_charset(ud));
    }
    uchardet_delete(ud);
    return index;
}

// ICU's detector: the confidence (0-100) of each code page it names.
void icuGuess(const std::string& bytes, std::vector<int>& confidence) {
    UErrorCode status = U_ZERO_ERROR;
    UCharsetDetector* det = ucsdet_open(&status);
    if (U_FAILURE(status))
        return;
    ucsdet_setText(det, bytes.data(), int32_t(bytes.size()), &status);
    int32_t found = 0;
    const UCharsetMatch** matches = ucsdet_detectAll(det, &found, &status);
    for (int32_t i = 0; U_SUCCESS(status) && matches && i < found; ++i) {
        UErrorCode s = U_ZERO_ERROR;
        int index = codePageIndex(ucsdet_getName(matches[i], &s));
        int conf = ucsdet_getConfidence(matches[i], &s);
        if (U_SUCCESS(s) && index >= 0 && conf > confidence[index])
            confidence[index] = conf;
    }
    ucsdet_close(det);
}

std::string joined(const std::vector<std::string>& fields) {
    std::string pool;
    for (const std::string& f : fields)
        pool += (pool.empty() ? "" : "\n") + f;
    return pool;
}

// The code page that reads the fields best, or -1 when none reads them. The
// first legacy code page of the priority list is kept unless another is
// clearly better.
int guessPool(const std::vector<std::string>& fields) {
    const std::shared_ptr<const Priority> priority = currentPriority();
    const int n = codePageCount();
    std::vector<double> score(n, 0);
    std::vector<bool> usable(n, false);
    for (int i : priority->order) {
        std::string reading;
        int cuts = 0;
        double common = 0;
        usable[i] = true;
        for (const std::string& f : fields) {
            std::string text;
            int cut = 0;
            if (!decode(f, i, text, &cut)) {
                usable[i] = false;
                break;
            }
            reading += (reading.empty() ? "" : "\n") + text;
            cuts += cut;
            common += commonness(f, codePages()[i].kind);
        }
        // A reading whose only non-ASCII bytes were a cut character says nothing.
        if (usable[i] && cuts > 0 && isAscii(reading))
            usable[i] = false;
        if (usable[i])
            score[i] = plausibility(reading, codePages()[i].kind) + common - 0.5 * cuts;
    }
    // Valid UTF-8 with multi-byte sequences is UTF-8: no legacy text is.
    if (usable[kUtf8] && score[kUtf8] > -1000)
        return kUtf8;
    const std::string pool = joined(fields);
    // The detectors' votes count for the code pages that place the same
    // letters alike, and the host's markets count as a vote of their own.
    const int hint = uchardetGuess(pool);
    std::vector<int> confidence(n, 0);
    icuGuess(pool, confidence);
    std::vector<double> vote(n, 0);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (codePages()[i].family == codePages()[j].family)
                vote[i] = std::max(vote[i], confidence[j] / 20.0 + (j == hint ? 2 : 0));
    for (size_t k = 1; k <= priority->market; ++k)
        vote[priority->order[k]] += 2;
    auto total = [&](int i) { return score[i] + vote[i]; };
    int best = -1;
    for (int i : priority->order) {
        if (i == kUtf8 || !usable[i])
            continue;
        if (best < 0 || total(i) > total(best) + 1e-9)
            best = i;
    }
    // Another reading must beat the first legacy code page's clearly.
    const int first = priority->order[1];
    if (best >= 0 && best != first && usable[first] && total(best) < total(first) + 1.5)
        return first;
    return best;
}

bool isLatin1Marked(const TrackField& f) {
    return !f.charset || strcasecmp(f.charset, "ISO-8859-1") == 0 ||
           strcasecmp(f.charset, "LATIN1") == 0 || strcasecmp(f.charset, "ISO8859-1") == 0;
}

std::vector<std::string> latin1Fields(const Track* track) {
    const TrackField* fields[] = {&track->title, &track->album, &track->artist, &track->composer,
                                  &track->genre};
    std::vector<std::string> out;
    for (const TrackField* f : fields)
        if (f->data && isLatin1Marked(*f))
            out.emplace_back(f->data, f->length);
    return out;
}
int setField(TrackField* field, const char* data, size_t length, const char* charset) {
    if (!field || !data || !charset)
        return -1;
    char* copy = static_cast<char*>(malloc(length + 1));
    char* name = strdup(charset);
    if (!copy || !name) {
        free(copy);
        free(name);
        return -1;
    }
    memcpy(copy, data, length);
    copy[length] = '\0';
    free(field->data);
    free(field->charset);
    field->data = copy;
    field->length = length;
    field->charset = name;
    return 0;
}

// Converts one field with the pool's code page, falling back to the default.
std::string convertField(const TrackField& f, int poolIndex, const char* defaultCharset) {
    std::string bytes(f.data, f.length);
    std::string out;
    if (!isLatin1Marked(f)) {
        if (convertFrom(bytes, f.charset, out))
            return out;
        ZQLOG_WARN("cannot convert from %s", f.charset);
        return makeValid(bytes);
    }
    if (isAscii(bytes))
        return bytes;
    if (poolIndex >= 0 && decode(bytes, poolIndex, out))
        return out;
    if (decode(bytes, kLatin1, out))
        return out;
    if (defaultCharset && convertFrom(bytes, defaultCharset, out))
        return out;
    if (convertFrom(bytes, "ISO-8859-1", out))
        return out;
    return makeValid(bytes);
}

}  // namespace

extern "C" {

void initTrack(Track* track) {
    if (track)
        memset(track, 0, sizeof(*track));
}

int setTrackTitle(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->title, data, length, charset) : -1;
}
int setTrackAlbum(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->album, data, length, charset) : -1;
}
int setTrackArtist(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->artist, data, length, charset) : -1;
}
int setTrackComposer(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->composer, data, length, charset) : -1;
}
int setTrackGenre(Track* track, const char* data, size_t length, const char* charset) {
    return track ? setField(&track->genre, data, length, charset) : -1;
}

const char* guessCharset(const char* data, size_t length) {
    if (!data)
        return "ASCII";
    std::string pool(data, length);
    if (isAscii(pool))
        return "ASCII";
    int index = guessPool({pool});
    if (index < 0)
        return "ISO-8859-1";
    return codePages()[index].name;
}

int setMarketCodePages(const char* list) {
    if (!setPriority(list)) {
        ZQLOG_WARN("unknown code page in \"%s\"; list unchanged", list);
        return -1;
    }
    ZQLOG_INFO("market code pages: \"%s\"", list ? list : "");
    return 0;
}

Track* guess_and_convert_by_prio(const Track* track, const char* defaultCharset) {
    if (!track)
        return nullptr;
    const std::vector<std::string> fields = latin1Fields(track);
    int poolIndex = -1;
    if (!isAscii(joined(fields)))
        poolIndex = guessPool(fields);
    Track* out = static_cast<Track*>(malloc(sizeof(Track)));
    if (!out)
        return nullptr;
    initTrack(out);
    const TrackField* in[] = {&track->title, &track->album, &track->artist, &track->composer,
                              &track->genre};
    TrackField* to[] = {&out->title, &out->album, &out->artist, &out->composer, &out->genre};
    for (int i = 0; i < 5; ++i) {
        if (!in[i]->data)
            continue;
        std::string text = convertField(*in[i], poolIndex, defaultCharset);
        if (setField(to[i], text.data(), text.size(), "UTF-8") != 0) {
            destroyTrack(out);
            free(out);
            return nullptr;
        }
    }
    return out;
}

int isMetadataEmptyUTF8(const char* text, size_t length) {
    if (!text || length == 0)
        return 1;
    const char* end = text + length;
    for (const char* p = text; p < end;) {
        const char* next = g_utf8_find_next_char(p, end);
        gunichar c = g_utf8_get_char_validated(p, gssize((next ? next : end) - p));
        if (c == gunichar(-1) || c == gunichar(-2) || (!g_unichar_isspace(c) && c != 0))
            return 0;
        if (!next)
            break;
        p = next;
    }
    return 1;
}

void destroyTrack(Track* track) {
    if (!track)
        return;
    TrackField* fields[] = {&track->title, &track->album, &track->artist, &track->composer,
                            &track->genre};
    for (TrackField* f : fields) {
        free(f->data);
        free(f->charset);
    }
    initTrack(track);
}

}  // extern "C"
