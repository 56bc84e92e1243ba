#pragma once

#include <string>
#include <vector>

namespace kestrow {

// Identity of one indexing request, copied into every block of the request.
// A plain value: copies carry every field, deviceGone included.
class Operation {
public:
    Operation();
    Operation(int id, unsigned handle, const std::string& deviceId, const std::string& mountPoint,
              bool lastBlock);
    Operation(const Operation& other) = default;
    Operation& operator=(const Operation& other) = default;
    ~Operation();

    int id;
    unsigned handle;
    std::string deviceId;
    std::string mountPoint;
    // True on the block that completes the operation in the stage emitting it.
    bool lastBlock;
    // Set by a stage that found the device gone; never cleared.
    bool deviceGone;
    // The mount point's file system and folder (st_dev, st_ino) when the
    // operation was made; both 0 when not known. A mount point that shows
    // another one is a vanished device (see msd/MountPointCheck.h).
    unsigned long long rootDevice;
    unsigned long long rootInode;
    // Set by a stage that could not write the database (full, read-only or
    // failing storage): the database does not hold what the stage was given.
    bool writeFailed;
    // Folders of the device that the crawler could not read completely, set
    // on the blocks it sends: the rows in and below them are kept, and the
    // operation ends with status "PROGRESS".
    std::vector<std::string> unreadable;
    // The PLAYID of each playlist whose rows the playlist saver wrote, set on
    // the block it sends: when the operation ends incomplete, they may have
    // been read without their songs, and are read again at the next indexing.
    std::vector<std::string> playlistsWritten;
};

}  // namespace kestrow
