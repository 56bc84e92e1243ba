#include "playlist/TrackPathResolver.h"

#include <glib.h>

#include <algorithm>
#include <memory>

#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

struct GFreeDeleter {
    void operator()(gchar* p) const { g_free(p); }
};
typedef std::unique_ptr<gchar, GFreeDeleter> GCharPtr;

std::vector<std::string> partsOf(const std::string& path) {
    std::vector<std::string> parts;
    for (size_t begin = 0, end; begin < path.size(); begin = end + 1) {
        end = std::min(path.find('/', begin), path.size());
        if (end > begin)
            parts.push_back(path.substr(begin, end - begin));
    }
    return parts;
}

bool startsWith(const std::vector<std::string>& parts, const std::vector<std::string>& prefix) {
    return parts.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), parts.begin());
}

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return std::string();
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// Length of the URI scheme that `text` starts with ("http" in "http://x"),
// 0 when it starts with none. A scheme of one letter is a Windows drive.
size_t schemeLength(const std::string& text) {
    if (text.empty() || !g_ascii_isalpha(text[0]))
        return 0;
    size_t i = 1;
    while (i < text.size() &&
           (g_ascii_isalnum(text[i]) || text[i] == '+' || text[i] == '-' || text[i] == '.'))
        ++i;
    return i < text.size() && text[i] == ':' ? i : 0;
}

bool isFileScheme(const std::string& text, size_t scheme) {
    return scheme == 4 && g_ascii_strncasecmp(text.c_str(), "file", 4) == 0;
}

}  // namespace

TrackPathResolver::TrackPathResolver(const std::string& mountPoint, const std::string& playlistPath)
    : mountPoint_(mountPoint), mountParts_(partsOf(mountPoint)) {
    std::vector<std::string> parts = partsOf(playlistPath);
    if (parts.size() > mountParts_.size() && startsWith(parts, mountParts_)) {
        belowMount_ = true;
        folderParts_.assign(parts.begin() + long(mountParts_.size()), parts.end() - 1);
    }
    // The parser is handed a real URI, so that "#", "%", "?" and blanks in
    // the playlist's name reach the file instead of being read as URI syntax.
    GCharPtr absolute(g_canonicalize_filename(playlistPath.c_str(), nullptr));
    GCharPtr folder(g_path_get_dirname(absolute.get()));
    parserFolder_ = folder.get();
    if (parserFolder_ != "/")
        parserFolder_ += '/';
    GCharPtr uri(g_filename_to_uri(absolute.get(), nullptr, nullptr));
    if (uri)
        parserUri_ = uri.get();
}

std::optional<std::string> TrackPathResolver::fromText(const std::string& written) const {
    const std::string text = trimmed(written);
    if (text.empty())
        return std::nullopt;
    if (text.find('\0') != std::string::npos) {
        ZQLOG_WARN("entry with a NUL byte dropped");
        return std::nullopt;
    }
    const size_t scheme = schemeLength(text);
    if (isFileScheme(text, scheme)) {
        std::optional<std::string> path = unescapedFilePath(text);
        return path ? fromPath(*path) : std::nullopt;
    }
    // A remote entry is kept whole, scheme included: it names a stream, not a file.
    if (scheme > 1)
        return text;
    return fromPath(text);
}

std::optional<std::string> TrackPathResolver::fromParser(const std::string& uri) const {
    const size_t scheme = schemeLength(uri);
    if (isFileScheme(uri, scheme)) {
        std::optional<std::string> path = unescapedFilePath(uri);
        if (!path)
            return std::nullopt;
        // The parser joins a relative entry to the playlist's folder without
        // reading its "\" or drive: what follows the folder is the entry's text.
        if (path->compare(0, parserFolder_.size(), parserFolder_) == 0)
            return fromPath(path->substr(parserFolder_.size()));
        return fromPath(*path);
    }
    // Kept whole, like remote entries in the file.
    if (scheme > 1)
        return uri;
    // A bare path, or a drive letter that the parser took for a URI scheme.
    return fromPath(uri);
}

std::optional<std::string> TrackPathResolver::unescapedFilePath(const std::string& uri) const {
    std::string path = uri.substr(5);  // after "file:"
    if (path.compare(0, 2, "//") == 0) {
        const size_t slash = path.find('/', 2);  // after the host, mostly none
        path = slash == std::string::npos ? std::string() : path.substr(slash);
    }
    GCharPtr unescaped(g_uri_unescape_string(path.c_str(), nullptr));
    if (!unescaped) {
        ZQLOG_WARN("cannot unescape entry %.256s", uri.c_str());
        return std::nullopt;
    }
    return std::string(unescaped.get());
}

std::optional<std::string> TrackPathResolver::fromPath(std::string path) const {
    // Playlists written on Windows separate with "\": a player reads it as "/".
    std::replace(path.begin(), path.end(), '\\', '/');
    // A drive ("E:", "/E:" in a file URI) names the stick the playlist was
    // written for: the rest of the path is taken from this stick's root.
    const size_t drive = path.size() > 2 && path[0] == '/' ? 1 : 0;
    if (path.size() >= drive + 2 && g_ascii_isalpha(path[drive]) && path[drive + 1] == ':' &&
        (drive == 0 || path.size() == drive + 2 || path[drive + 2] == '/'))
        path = "/" + path.substr(drive + 2);

    std::vector<std::string> parts = partsOf(path);
    std::vector<std::string> resolved;
    if (!path.empty() && path[0] == '/') {
        // A root-absolute entry starts at the mount point, where the player's
        // root is, unless it already names the mount point.
        if (startsWith(parts, mountParts_))
            parts.erase(parts.begin(), parts.begin() + long(mountParts_.size()));
    } else if (belowMount_) {
        // A relative entry starts at the playlist's folder.
        resolved = folderParts_;
    } else {
        ZQLOG_WARN("playlist outside the mount point, entry dropped: %.256s", path.c_str());
        return std::nullopt;
    }
    // "." and ".." are collapsed as a player does before opening the file.
    for (const std::string& part : parts) {
        if (part == ".")
            continue;
        if (part != "..") {
            resolved.push_back(part);
        } else if (!resolved.empty()) {
            resolved.pop_back();
        } else {
            ZQLOG_WARN("entry outside the mount point dropped: %.256s", path.c_str());
            return std::nullopt;
        }
    }
    if (resolved.empty())
        return std::nullopt;
    std::string out = mountPoint_;
    for (const std::string& part : resolved)
        out += "/" + part;
    return out;
}

}  // namespace kestrow
