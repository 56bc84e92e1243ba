#pragma once

#include <array>
#include <memory>
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
//
// With a `retimeText`, a clock that moved is forgiven: FAT keeps local time
// to 2 s, so a stick read under another time zone or daylight-saving offset
// shows every file moved by the same whole number of hours. When at least 90%
// of the files that have a row differ from it by the same shift (a whole
// number of hours up to 14, give or take 2 s, or at most 2 s), those files
// are unchanged: their rows get the new time with `retimeText` (the time
// bound to ?1, the ID to ?2) and they are not passed on. Files that may be so
// shifted are held until the shift is decided (at the last block, or as
// soon as their shift can no longer reach 90%).
class GenericChangeFinder {
public:
    GenericChangeFinder(const char* name, sqlstl::basic_sqlostream<char>& ostream,
                        sqlstl::basic_sqlistream<char>& istream, const Operation& operation,
                        const std::string& retimeText = std::string());

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
    // Gives each held file's row the file's time with retimeText, in one transaction.
    void retimeRows(const std::vector<std::pair<long long, int>>& timesAndIds);

    // Shifts by which a file may differ from its row and count as unchanged:
    // class 0 is at most 2 s; class h + kMaxHours is h whole hours (h != 0).
    static const int kMaxHours = 14;
    static int shiftClass(long long fileTime, long long rowTime);  // -1: none
    // Whether the files of class c can still make 90% of those with a row.
    bool shiftPossible(int c) const;
    // A file held until the shift is decided, and its reserved row.
    struct Held {
        std::unique_ptr<FileInfo> file;
        size_t row;
        int shift;
    };

    const char* name;
    sqlstl::basic_sqlostream<char>& ostream;
    sqlstl::basic_sqlistream<char>& istream;
    Operation operation;
    bool storedRead = false;
    std::vector<DbObject> stored;  // in path order, then time
    std::vector<char> matched;     // per stored row: a file of a block matched or replaced it
    const std::string retimeText;  // empty: times compare exactly
    int withRow = 0;               // files so far that have a stored row
    std::array<int, 2 * kMaxHours + 1> shiftCount{};  // of those, per shift class
    std::vector<Held> held;
};

}  // namespace kestrow
