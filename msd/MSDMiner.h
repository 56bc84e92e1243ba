#pragma once

#include <boost/shared_ptr.hpp>
#include <functional>
#include <string>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "platform/common/MetaDataInfo.h"

namespace kestrow {

// Reads the tags of each file of a block and emits one song record per file.
// A file is read through a BoundedFileStream, so it costs a few small reads
// whatever it holds. A file that was read but holds no usable tag gets a
// record with empty tags; one that could not be read at all (see
// BoundedFileStream::error) gets the same record under FileInfo::kUnreadTime,
// so that the next indexing reads it again.
// Once the device is found gone (see MountPointCheck), the block ends there,
// marked deviceGone, and the operation's later blocks are passed on empty.
// Runs on its own thread. TagLib's diagnostics go to the log at debug level
// (a listener installed once per process); standard error is never touched.
class MSDMiner : public Server<Block<FileInfo*>, Block<MetaDataInfo*>> {
public:
    // How many files ahead of the one being read are announced (ReadAhead).
    static const size_t kReadAheadFiles = 256;

    // Has the Asian-reading transliterator built in the background
    // (MetaDataInfo::prepareAsianReading).
    explicit MSDMiner(const char* name);

    // Called on the stage's thread with each file's path before it is read;
    // lets a test act at a known point. Set before launch().
    void setFileHook(std::function<void(const std::string&)> hook);

    boost::shared_ptr<Block<MetaDataInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;

private:
    // Marks the operation's device gone, for the rest of its blocks too.
    void markGone(Operation& op);
    // Reads the tags of one file into `out`: a record, an empty one to be
    // read again, or none. False once the device is found gone.
    bool readTrack(const FileInfo& file, const Operation& op, std::vector<MetaDataInfo*>& out);

    std::function<void(const std::string&)> fileHook;
    int goneOperation;  // the operation whose device went away; stage's thread only
};

}  // namespace kestrow
