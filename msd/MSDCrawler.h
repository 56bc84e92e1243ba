#pragma once

#include <boost/shared_ptr.hpp>
#include <functional>
#include <string>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/Directory.h"
#include "msd/FileInfo.h"

struct dirent;

namespace kestrow {

// Walks a mounted file system breadth-first from the directory block's items
// (the mount point first) and sorts what it finds into three kinds of block:
// songs blocks, sent to `next` (the songs change finder) as the walk finds
// them (see kFirstBlockSongs), the last of them marked and returned to the run
// loop; the playlists block, marked last, enqueued into the playlist sink; and
// the input block, now holding every directory walked, enqueued into the
// directory sink. Without `next`, every song is in the returned block. At
// most kTrackLimit songs are collected per operation.
//
// Before each directory the device is looked for (MountPointCheck): once it
// is gone the walk ends, and the last blocks are marked deviceGone with
// what was found so far. A folder that cannot be opened or read completely
// while the device is still there is logged and passed over; its path goes
// into the `unreadable` list of the last blocks' operation.
//
// Symbolic links are followed, but an entry whose target resolves outside the
// mount point is skipped, and a directory (device and inode) is walked at
// most once per operation.
//
// The sinks are not owned and are wired before launch(). doOperation and
// signalCompletion run on the stage's thread. Before each directory entry
// the walk waits while the stage is paused, and ends once it is stopping.
class MSDCrawler : public Server<Block<Directory*>, Block<FileInfo*>> {
public:
    static const unsigned kTrackLimit = 16000;
    // A songs block goes on, after a folder, once it holds kFirstBlockSongs
    // songs (twice as many for each next block, up to kMostBlockSongs) or its
    // first song has waited kBlockMs.
    static constexpr size_t kFirstBlockSongs = 32;
    static constexpr size_t kMostBlockSongs = 500;
    static constexpr long kBlockMs = 200;

    // Song and playlist kinds of a file name; exposed for the stage's tests.
    enum FileKind { OTHER, SONG, PLAYLIST };
    static FileKind kindOf(const std::string& name);

    explicit MSDCrawler(const char* name);

    void setPlaylistSink(BaseServer<Block<FileInfo*>>* sink);
    void setDirectorySink(BaseServer<Block<Directory*>>* sink);
    // Called on the stage's thread with each directory's path before it is
    // opened; lets a test hold the walk at a known point. Set before launch().
    void setDirectoryHook(std::function<void(const std::string&)> hook);

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<Directory*>> in) override;
    // Emits crawlingFinished(mount point) unless the stage is stopping.
    void signalCompletion(const Operation& op) override;

private:
    struct Walk;
    enum class FolderEnd { READ, DEVICE_GONE, STOPPING };
    // Reads the folder dirs[index] of the walk, adding what it holds.
    FolderEnd readFolder(Walk& walk, size_t index);
    // Sends the songs found so far on to `next` when the block is due.
    void sendSongs(Walk& walk);
    // Adds one entry of the open folder dirs[index]; records in `readError`
    // the first error that hid an entry.
    void addEntry(Walk& walk, size_t index, int folderFd, const struct dirent* entry,
                  int& readError);

    BaseServer<Block<FileInfo*>>* playlistSink;
    BaseServer<Block<Directory*>>* directorySink;
    std::function<void(const std::string&)> directoryHook;
};

}  // namespace kestrow
