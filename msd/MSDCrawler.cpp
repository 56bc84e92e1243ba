#include "msd/MSDCrawler.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "db/Timer.h"
#include "facade/KestrowQTProxy.h"
#include "msd/MountPointCheck.h"
#include "platform/common/Handles.h"

namespace kestrow {

namespace {

struct Extension {
    const char* text;  // lower case
    MSDCrawler::FileKind kind;
};

// Tried in this order; the first match wins.
const Extension kExtensions[] = {
    {".mp3", MSDCrawler::SONG},     {".m4b", MSDCrawler::SONG},     {".m4a", MSDCrawler::SONG},
    {".wma", MSDCrawler::SONG},     {".aac", MSDCrawler::SONG},     {".wav", MSDCrawler::SONG},
    {".mpg", MSDCrawler::SONG},     {".mpeg", MSDCrawler::SONG},    {".asf", MSDCrawler::SONG},
    {".m4p", MSDCrawler::SONG},     {".flac", MSDCrawler::SONG},    {".m4r", MSDCrawler::SONG},
    {".mp4", MSDCrawler::SONG},     {".m3u", MSDCrawler::PLAYLIST}, {".m3u8", MSDCrawler::PLAYLIST},
    {".pls", MSDCrawler::PLAYLIST}, {".asx", MSDCrawler::PLAYLIST}, {".wpl", MSDCrawler::PLAYLIST},
};

// Entries never looked at, files and directories alike.
bool isSkippedName(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 ||
           std::strcmp(name, ".TRASH") == 0 || std::strcmp(name, "$RECYCLE.BIN") == 0;
}

// True when `path` (resolved) is `root` (resolved) or lies below it.
bool isBelow(const std::string& path, const std::string& root) {
    if (root.empty())
        return false;
    if (root == "/")
        return true;
    return path.compare(0, root.size(), root) == 0 &&
           (path.size() == root.size() || path[root.size()] == '/');
}

std::string resolve(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved)
        return std::string();
    std::string result(resolved);
    std::free(resolved);
    return result;
}

typedef std::pair<dev_t, ino_t> DirectoryKey;

char lowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

// Whether the `length` characters at `text`, lowered, are `lower`.
bool equalsLowered(const char* text, const char* lower, size_t length) {
    for (size_t i = 0; i < length; ++i)
        if (lowerAscii(text[i]) != lower[i])
            return false;
    return true;
}

}  // namespace

MSDCrawler::FileKind MSDCrawler::kindOf(const std::string& name) {
    // The longest extension has five characters: only the name's last five
    // are lowered for the first test.
    const size_t tailLength = std::min<size_t>(name.size(), 5);
    char tail[5];
    for (size_t i = 0; i < tailLength; ++i)
        tail[i] = lowerAscii(name[name.size() - tailLength + i]);
    for (const Extension& ext : kExtensions) {
        // The first occurrence must end the name: "a.mp3.mp3" is no song.
        // Only a name that ends with the extension can match, so the search
        // for an earlier occurrence is made for those alone.
        const size_t length = std::strlen(ext.text);
        if (tailLength < length || std::memcmp(tail + tailLength - length, ext.text, length) != 0)
            continue;
        const size_t end = name.size() - length;
        size_t at = 0;
        while (at < end && !equalsLowered(name.c_str() + at, ext.text, length))
            ++at;
        if (at == end)
            return ext.kind;
    }
    return OTHER;
}

MSDCrawler::MSDCrawler(const char* name_)
    : Server<Block<Directory*>, Block<FileInfo*>>(name_),
      playlistSink(nullptr),
      directorySink(nullptr) {}

void MSDCrawler::setPlaylistSink(BaseServer<Block<FileInfo*>>* sink) {
    playlistSink = sink;
}

void MSDCrawler::setDirectorySink(BaseServer<Block<Directory*>>* sink) {
    directorySink = sink;
}

void MSDCrawler::setDirectoryHook(std::function<void(const std::string&)> hook) {
    directoryHook = std::move(hook);
}

// What one walk has found so far; the crawler's thread only.
struct MSDCrawler::Walk {
    explicit Walk(boost::shared_ptr<Block<Directory*>> in_)
        : in(in_), songs(new Block<FileInfo*>()), playlists(new Block<FileInfo*>()) {
        songs->operation = in->operation;
        playlists->operation = in->operation;
    }
    void markGone() {
        in->operation.deviceGone = true;
        songs->operation.deviceGone = true;
        playlists->operation.deviceGone = true;
    }

    boost::shared_ptr<Block<Directory*>> in;  // its items: the folders found, in walk order
    boost::shared_ptr<Block<FileInfo*>> songs;
    boost::shared_ptr<Block<FileInfo*>> playlists;
    std::string root;               // the mount point, resolved
    std::set<DirectoryKey> walked;  // no folder is walked twice
    std::vector<std::string> unreadable;
    uint16_t tracks = 0;
    size_t blockSongs = kFirstBlockSongs;                // when the next songs block is due
    std::chrono::steady_clock::time_point firstWaiting;  // of the songs not sent yet
};

boost::shared_ptr<Block<FileInfo*>> MSDCrawler::doOperation(
    boost::shared_ptr<Block<Directory*>> in) {
    std::vector<Directory*>& dirs = in->items;
    ZQLOG_INFO("MSDCrawler for: %s (op: %d)", dirs.empty() ? "" : dirs[0]->path.c_str(),
               in->operation.id);
    Timer timer;
    // The device is the file system found at the mount point when the
    // request was made, or else now.
    if (!in->operation.rootDevice && !in->operation.rootInode)
        MountPointCheck::record(in->operation);

    // Links may only lead to places inside the mount point, and no directory
    // is walked twice: a link to "..", "." or "/" cannot make the walk loop.
    Walk walk(in);
    walk.root = resolve(in->operation.mountPoint);
    for (const Directory* d : dirs) {
        struct stat st;
        if (stat(d->path.c_str(), &st) == 0)
            walk.walked.insert(DirectoryKey(st.st_dev, st.st_ino));
    }
    for (size_t index = 0; index < dirs.size(); ++index) {
        const FolderEnd end = readFolder(walk, index);
        if (end == FolderEnd::DEVICE_GONE)
            walk.markGone();
        if (end != FolderEnd::READ)
            break;
        sendSongs(walk);
    }
    if (walk.tracks == kTrackLimit)
        ZQLOG_WARN("%d track reached", int(walk.tracks));

    for (Operation* op : {&in->operation, &walk.songs->operation, &walk.playlists->operation})
        op->unreadable = walk.unreadable;
    walk.playlists->operation.lastBlock = true;
    if (playlistSink)
        playlistSink->enqueue(walk.playlists);
    if (directorySink)
        directorySink->enqueue(in);

    ZQLOG_INFO("MSDCrawler timer: %ld (op: %d) found %u", timer.stop(), in->operation.id,
               unsigned(walk.tracks));
    return walk.songs;
}

void MSDCrawler::sendSongs(Walk& walk) {
    std::vector<FileInfo*>& found = walk.songs->items;
    if (!next || found.empty())
        return;
    const auto now = std::chrono::steady_clock::now();
    if (walk.firstWaiting == std::chrono::steady_clock::time_point())
        walk.firstWaiting = now;
    if (found.size() < walk.blockSongs &&
        now - walk.firstWaiting < std::chrono::milliseconds(kBlockMs))
        return;
    // Songs go on as the walk finds them, not in one block after it: their
    // tags are read, and the first of them saved, while the walk goes on.
    boost::shared_ptr<Block<FileInfo*>> block(new Block<FileInfo*>());
    block->operation = walk.songs->operation;
    block->operation.lastBlock = false;
    block->items.swap(found);
    walk.blockSongs = std::min(kMostBlockSongs, walk.blockSongs * 2);
    walk.firstWaiting = std::chrono::steady_clock::time_point();
    next->enqueue(block);
}

MSDCrawler::FolderEnd MSDCrawler::readFolder(Walk& walk, size_t index) {
    Directory* current = walk.in->items[index];
    if (directoryHook)
        directoryHook(current->path);
    // Checked before each folder, not only when one fails to open: the
    // folder a stick was mounted on can be opened once the stick is gone.
    if (MountPointCheck::lost(walk.in->operation))
        return FolderEnd::DEVICE_GONE;
    olvane::DirHandle dir(opendir(current->path.c_str()));
    if (!dir) {
        ZQLOG_WARN("Error opening dir: %s", current->path.c_str());
        if (MountPointCheck::lost(walk.in->operation))
            return FolderEnd::DEVICE_GONE;
        ZQLOG_WARN("go on");
        // Out of reach, not gone: what the folder held stays in the database.
        walk.unreadable.push_back(current->path);
        return FolderEnd::READ;
    }
    int readError = 0;  // the first error that hid entries of this folder
    FolderEnd end = FolderEnd::READ;
    while (walk.tracks < kTrackLimit) {
        // A paused walk waits here, between two entries, and goes on from
        // here when started again, rather than end with what it has found
        // so far. A stop ends it.
        if (!holdWhilePaused()) {
            end = FolderEnd::STOPPING;
            break;
        }
        errno = 0;
        const struct dirent* entry = readdir(dir.get());
        if (!entry) {
            readError = readError ? readError : errno;
            break;
        }
        addEntry(walk, index, dirfd(dir.get()), entry, readError);
    }
    if (readError) {
        ZQLOG_WARN("Error reading dir: %s: %s", current->path.c_str(), std::strerror(readError));
        walk.unreadable.push_back(current->path);
    }
    return end;
}

void MSDCrawler::addEntry(Walk& walk, size_t index, int folderFd, const struct dirent* entry,
                          int& readError) {
    const char* name = entry->d_name;
    if (isSkippedName(name))
        return;
    // A plain file that is neither a song nor a playlist needs no stat.
    FileKind kind = OTHER;
    if (entry->d_type == DT_REG) {
        if (name[0] == '.')
            return;
        kind = kindOf(name);
        if (kind == OTHER)
            return;
    }
    Directory* current = walk.in->items[index];
    std::string path = current->path + "/" + name;
    struct stat st;
    // Looked up from the open folder, not along the whole path again.
    if (fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == EACCES || errno == EIO)
            readError = readError ? readError : errno;
        return;
    }
    if (S_ISLNK(st.st_mode)) {
        std::string target = resolve(path);
        if (target.empty())
            return;  // dangling or looping: stat would fail as well
        if (!isBelow(target, walk.root)) {
            ZQLOG_DEBUG("link leads out of the mount point, skipped: %s", path.c_str());
            return;
        }
        if (stat(path.c_str(), &st) != 0)
            return;
    }
    if (S_ISDIR(st.st_mode)) {
        if (!walk.walked.insert(DirectoryKey(st.st_dev, st.st_ino)).second) {
            ZQLOG_DEBUG("directory already walked, skipped: %s", path.c_str());
            return;
        }
        walk.in->items.push_back(new Directory(path, walk.in->operation.mountPoint, int(index)));
        return;
    }
    if (!S_ISREG(st.st_mode) || name[0] == '.')
        return;
    if (entry->d_type != DT_REG)
        kind = kindOf(name);
    if (kind == SONG) {
        walk.songs->items.push_back(new FileInfo(path, 0, int64_t(st.st_mtime)));
        current->hasMusic = true;
        ++walk.tracks;
    } else if (kind == PLAYLIST) {
        walk.playlists->items.push_back(new FileInfo(path, 0, int64_t(st.st_mtime)));
    }
}

void MSDCrawler::signalCompletion(const Operation& op) {
    // A crawler paused after its walk has still crawled everything: only a
    // stopping one keeps quiet.
    if (state == Runnable::kStopping) {
        ZQLOG_INFO("Skip signalCrawlingFinished");
        return;
    }
    emit KestrowQTProxy::instance().crawlingFinished(QString::fromUtf8(op.mountPoint.c_str()));
}

}  // namespace kestrow
