#pragma once
// What the fuzz targets share: a scratch folder that lives as long as the
// process, a way to put one input into a file there, a UTF-8 check.

#include <glib.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace olvane::fuzz {

// A folder of its own under $TMPDIR, removed at exit; the mount point of
// the inputs' files.
inline const std::string& scratchFolder() {
    static const std::string folder = [] {
        const char* base = getenv("TMPDIR");
        std::string tmpl = std::string(base && *base ? base : "/tmp") + "/olvane-fuzz-XXXXXX";
        if (!mkdtemp(&tmpl[0]))
            abort();
        return tmpl;
    }();
    static const struct Remover {
        ~Remover() {
            std::error_code ec;
            std::filesystem::remove_all(folder, ec);
        }
    } remover;
    return folder;
}

// Replaces the file at `path` with the bytes.
inline void writeFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        abort();
    if (size && std::fwrite(data, 1, size, f) != size)
        abort();
    std::fclose(f);
}

// Whether the bytes are UTF-8; a NUL is a character like any other.
inline bool isUtf8(const char* data, size_t size) {
    for (const char* end = data + size; data < end;) {
        const char* nul = static_cast<const char*>(memchr(data, 0, size_t(end - data)));
        const char* stop = nul ? nul : end;
        if (!g_utf8_validate(data, gssize(stop - data), nullptr))
            return false;
        data = stop + (nul ? 1 : 0);
    }
    return true;
}

}  // namespace olvane::fuzz
