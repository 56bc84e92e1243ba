#include "platform/common/StrippedValue.h"

#include <glib.h>

StrippedValue trim(const std::string& text) {
    if (!g_utf8_validate(text.data(), gssize(text.size()), nullptr)) {
        size_t b = text.find_first_not_of(" \t\r\n\f\v");
        if (b == std::string::npos)
            return StrippedValue();
        size_t e = text.find_last_not_of(" \t\r\n\f\v");
        return StrippedValue(text.substr(b, e - b + 1));
    }
    const char* begin = text.data();
    const char* end = begin + text.size();
    while (begin < end && g_unichar_isspace(g_utf8_get_char(begin)))
        begin = g_utf8_next_char(begin);
    while (end > begin) {
        const char* prev = g_utf8_prev_char(end);
        if (!g_unichar_isspace(g_utf8_get_char(prev)))
            break;
        end = prev;
    }
    return StrippedValue(std::string(begin, size_t(end - begin)));
}
