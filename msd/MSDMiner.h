#pragma once

#include <boost/shared_ptr.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "platform/common/MetaDataInfo.h"

namespace kestrow {

// Reads the tags of each file of a block and emits one song record per file,
// in the block's order. A file is read through a BoundedFileStream, so it
// costs a few small reads whatever it holds. A file that was read but holds
// no usable tag gets a record with empty tags; one that could not be read at
// all (see BoundedFileStream::error) gets the same record under
// FileInfo::kUnreadTime, so that the next indexing reads it again.
//
// doOperation runs on the stage's thread. The files of a block are read by
// `workers` threads at once: the stage's thread and workers - 1 threads
// started for the block and joined before doOperation returns, each taking
// the next file not yet taken. The block goes on whole, as one block:
// pausing, stopping and completion act between blocks, as in any stage.
// Once any of them finds the device gone (see MountPointCheck), all stop
// before their next file: the block keeps the records already read, is
// marked deviceGone, and the operation's later blocks are passed on empty.
// TagLib's diagnostics go to the log at debug level (a listener installed
// once per process); standard error is never touched.
class MSDMiner : public Server<Block<FileInfo*>, Block<MetaDataInfo*>> {
public:
    static constexpr unsigned kMaxWorkers = 4;

    // `workers` threads read a block, at most kMaxWorkers; 0 means one per
    // core (std::thread::hardware_concurrency). The first block with songs
    // has the Asian-reading transliterator built in the background
    // (MetaDataInfo::prepareAsianReading).
    explicit MSDMiner(const char* name, unsigned workers = 0);

    // Called with each file's path before it is read, on whichever thread
    // reads it, one call at a time (under hookMutex) and in the block's
    // order; lets a test act at a known point. Set before launch().
    void setFileHook(std::function<void(const std::string&)> hook);

    boost::shared_ptr<Block<MetaDataInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;

private:
    struct Pass;

    // Marks the operation's device gone, for the rest of its blocks too.
    void markGone(Operation& op);
    // One reader's loop over the pass's files, until none is left or the pass stops.
    void readFiles(Pass& pass);
    // Takes the next file's index (past the end when none is left), calling
    // the hook for it.
    size_t takeFile(Pass& pass);
    // Reads the tags of one file into `record`: a record, an empty one to be
    // read again, or none. False once the device is found gone. Any thread.
    bool readTrack(const FileInfo& file, const Operation& op,
                   std::unique_ptr<MetaDataInfo>& record);

    const unsigned workers;
    std::function<void(const std::string&)> fileHook;
    std::mutex hookMutex;  // serializes the calls of fileHook
    int goneOperation;     // the operation whose device went away; stage's thread only
};

}  // namespace kestrow
