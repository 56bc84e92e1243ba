#pragma once

#include <boost/shared_ptr.hpp>
#include <string>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "msd/FileInfo.h"

namespace kestrow {

// Makes indexing incremental: of the files a crawler found, passes on only
// those with no database row of the same path and modification time, and
// deletes the rows that match no file. A stage is configured with its select
// text (ID, LASTMODIFIED and path columns) and its delete text (one integer
// parameter, the ID). With completeSelect the select text is used as given;
// otherwise it ends in "LIKE " and the mount point's pattern is appended.
//
// Passed-on records move from the input block to the output block. Runs on
// the stage's own thread; the connections are opened and closed for each
// operation. A block whose device is gone is passed on empty, without
// touching the database. Throws std::runtime_error("cannot open db").
class ChangeFinder : public ServerDB<Block<FileInfo*>, Block<FileInfo*>> {
public:
    // The texts are not copied: they must outlive the stage.
    ChangeFinder(const char* name, const char* selectText, const char* deleteText,
                 bool completeSelect);

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;

private:
    const char* selectText;
    const char* deleteText;
    bool completeSelect;
};

}  // namespace kestrow
