#include "db/Collation.h"

#include <glib.h>

#include <cstring>

namespace {

constexpr int kStackLimit = 8192;

}  // namespace

extern "C" {

// Copies each text into a zero-terminated buffer (on the stack below 8192
// bytes, on the heap from 8192 on) and compares with g_utf8_collate.
int collation_utf8(void* /*context*/, int len1, const void* text1, int len2, const void* text2) {
    if (len1 < 0)
        len1 = 0;
    if (len2 < 0)
        len2 = 0;
    char stack1[kStackLimit];
    char stack2[kStackLimit];
    char* a = len1 < kStackLimit ? stack1 : static_cast<char*>(g_malloc(size_t(len1) + 1));
    char* b = len2 < kStackLimit ? stack2 : static_cast<char*>(g_malloc(size_t(len2) + 1));
    if (len1 > 0)
        std::memcpy(a, text1, size_t(len1));
    a[len1] = '\0';
    if (len2 > 0)
        std::memcpy(b, text2, size_t(len2));
    b[len2] = '\0';
    int result = g_utf8_collate(a, b);
    if (a != stack1)
        g_free(a);
    if (b != stack2)
        g_free(b);
    return result;
}

void* tracker_collation_init(void) {
    g_log(nullptr, G_LOG_LEVEL_DEBUG, "[GLib collation] Initializing collator");
    return nullptr;
}

void tracker_collation_shutdown(void* /*handle*/) {}

}  // extern "C"
