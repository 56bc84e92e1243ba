// Playlist parsing with the entry handler on arbitrary bytes. The first byte
// picks the format (m3u, m3u8, pls, asx, wpl), the rest is the file, which
// lies in a folder below the mount point. Every entry must name a path below
// the mount point, with no "." or ".." left in it, or be a URI of a scheme
// other than file, kept whole.
#include <glib.h>

#include <sys/stat.h>
#include <cstdlib>
#include <cstring>

#include "fuzz/FuzzFile.h"
#include "playlist/MSDPlaylistMiner.h"
#include "playlist/Playlist.h"
#include "playlist/PlaylistWrapper.h"

namespace {

const char* const kExtensions[] = {".m3u", ".m3u8", ".pls", ".asx", ".wpl"};

[[noreturn]] void fail(const std::string& path) {
    std::fprintf(stderr, "entry breaks the rule: [%s]\n", path.c_str());
    abort();
}

void checkEntry(const std::string& mountPoint, const std::string& path) {
    if (path.compare(0, mountPoint.size() + 1, mountPoint + "/") != 0) {
        // Only a URI of another scheme than file may name something else.
        const char* scheme = g_uri_peek_scheme(path.c_str());
        if (!scheme || std::strlen(scheme) < 2 || std::strcmp(scheme, "file") == 0)
            fail(path);
        return;
    }
    const std::string below = path.substr(mountPoint.size()) + "/";
    if (below.find("/../") != std::string::npos || below.find("/./") != std::string::npos ||
        below.find("//") != std::string::npos)
        fail(path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string mountPoint = olvane::fuzz::scratchFolder() + "/usb";
    static const bool made = [] {
        return mkdir(mountPoint.c_str(), 0700) == 0 &&
               mkdir((mountPoint + "/lists").c_str(), 0700) == 0;
    }();
    if (!made || size == 0)
        return 0;
    const std::string path = mountPoint + "/lists/list" + kExtensions[data[0] % 5];
    olvane::fuzz::writeFile(path, data + 1, size - 1);

    kestrow::Playlist playlist(path, mountPoint, 1);
    kestrow::PlaylistWrapper wrapper;
    wrapper.playlist = &playlist;
    kestrow::extractPlaylist(&wrapper, mountPoint);
    for (const kestrow::PlaylistEntry* entry : playlist.entries)
        checkEntry(mountPoint, entry->path);
    std::remove(path.c_str());
    return 0;
}
