#pragma once

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "msd/FileInfo.h"
#include "msd/GenericChangeFinder.h"

namespace kestrow {

// Makes indexing incremental: of the files a crawler found, passes on only
// those with no database row of the same path and modification time, and
// deletes the rows that match no file. A stage is configured with its select
// text (ID, LASTMODIFIED and path columns) and its delete text (one integer
// parameter, the ID). With completeSelect the select text is run as given;
// otherwise the operation's mount point is bound to its parameter ?1 (see
// MountPointScope for the condition that selects a mount point's rows).
//
// An operation's files may come in several blocks, as the walk finds them:
// each block's new and changed files go on at once, the rows of vanished
// files are deleted at the block marked lastBlock (see GenericChangeFinder).
// Passed-on records move from the input block to the output block. Runs on
// the stage's own thread; the connections are opened and closed for each
// block. A block whose device is gone is passed on empty, without touching
// the database. With a retimeText (the time bound to ?1, the ID to ?2), a
// partition whose clock moved keeps its rows (see GenericChangeFinder).
// Throws std::runtime_error("cannot open db").
class ChangeFinder : public ServerDB<Block<FileInfo*>, Block<FileInfo*>> {
public:
    ChangeFinder(const char* name, const std::string& selectText, const std::string& deleteText,
                 bool completeSelect, const std::string& retimeText = std::string());

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;

private:
    const std::string selectText;
    const std::string deleteText;
    bool completeSelect;
    const std::string retimeText;
    // State below belongs to the operation being compared; stage's thread only.
    std::unique_ptr<GenericChangeFinder> comparison;
    int comparedOperation = -1;
    bool modifiedSignalled = false;  // contentModified (and PROGRESS) once per operation
    bool writeFailed = false;        // a block's rows could not be deleted
};

}  // namespace kestrow
