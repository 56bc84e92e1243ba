#include "platform/common/Md5.h"

#include <glib.h>

namespace {

// Case-folded NFC form of UTF-8 text; invalid UTF-8 is digested as it is.
std::string foldName(const std::string& text) {
    if (!g_utf8_validate(text.data(), gssize(text.size()), nullptr))
        return text;
    gchar* nfc = g_utf8_normalize(text.data(), gssize(text.size()), G_NORMALIZE_NFC);
    if (!nfc)
        return text;
    gchar* folded = g_utf8_casefold(nfc, -1);
    gchar* again = g_utf8_normalize(folded, -1, G_NORMALIZE_NFC);
    std::string out(again ? again : folded);
    g_free(again);
    g_free(folded);
    g_free(nfc);
    return out;
}

}  // namespace

std::string Md5::canonical(Kind kind, const std::string& text) {
    switch (kind) {
        case SONG: {
            size_t first = text.find_first_not_of('/');
            return first == std::string::npos ? std::string() : text.substr(first);
        }
        case ARTIST:
        case ALBUM:
        case GENRE:
        case COMPOSER:
            return foldName(text);
        case DIRECTORY:
        case PLAYLIST:
        default:
            return text;
    }
}

Md5::Md5(Kind kind, const std::string& text) {
    const std::string data = canonical(kind, text);
    GChecksum* sum = g_checksum_new(G_CHECKSUM_MD5);
    g_checksum_update(sum, reinterpret_cast<const guchar*>(data.data()), gssize(data.size()));
    hex_ = g_checksum_get_string(sum);  // lowercase hex
    g_checksum_free(sum);
}
