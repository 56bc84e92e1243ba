#pragma once

#include <string>
#include <vector>

#include "framework/Block.h"
#include "framework/Operation.h"
#include "msd/DbObject.h"
#include "msd/FileInfo.h"
#include "sql/SqlStream.h"

namespace kestrow {

// Compares the files found on a device with the rows a database holds, by
// path and modification time, over the blocks of one operation: the rows are
// read once, at the first block, and those that matched no file of any block
// are deleted at the block marked lastBlock. Borrows the caller's streams,
// which are connected at each call, and uses them on the caller's thread only.
class GenericChangeFinder {
public:
    GenericChangeFinder(const char* name, sqlstl::basic_sqlostream<char>& ostream,
                        sqlstl::basic_sqlistream<char>& istream, const Operation& operation);

    // At the first call, reads the rows with `select` (ID, LASTMODIFIED,
    // path; with bindMountPoint, the operation's mount point is bound to its
    // ?1). Moves the records of `in` that match no row to `out`, sorted by
    // path (their slots in `in` are nulled; `in` is sorted), and deletes with
    // `deleteText` (one integer parameter, the ID) the rows of their paths.
    // When `in` is marked lastBlock, also deletes every row that matched no
    // record of any block, but those in or below the operation's unreadable
    // folders (as `in` gives them). Database errors are logged and leave the
    // affected rows alone. Returns the number of records moved.
    int findDifference(const std::string& select, const std::string& deleteText,
                       Block<FileInfo*>* in, Block<FileInfo*>* out, bool bindMountPoint);

private:
    // The stored rows of `select`, in path order.
    std::vector<DbObject> readStored(const std::string& select, bool bindMountPoint);
    // Deletes the rows with `deleteText` (one integer parameter: the ID), in one transaction.
    void deleteRows(const std::string& deleteText, const std::vector<const DbObject*>& rows);

    const char* name;
    sqlstl::basic_sqlostream<char>& ostream;
    sqlstl::basic_sqlistream<char>& istream;
    Operation operation;
    bool storedRead = false;
    std::vector<DbObject> stored;  // in path order, then time
    std::vector<char> matched;     // per stored row: a file of a block matched or replaced it
};

}  // namespace kestrow
