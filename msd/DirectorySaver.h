#pragma once

#include <array>
#include <boost/shared_ptr.hpp>
#include <set>
#include <string>
#include <vector>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "msd/Directory.h"

namespace kestrow {

// Keeps DIRECTORIES in step with the directories of one mount point that
// lead to music: a directory is stored when a song lies in it or below it.
// The mount point's rows are rewritten, in one transaction, only when the
// set of such directories differs from the stored one.
//
// Takes ownership of the crawler's directory block; emits one empty
// Block<void> per operation. Runs on the stage's own thread with its own
// connections, which are opened and closed for each operation. A block whose
// device is gone is passed on without touching the database. The rows in and
// below folders the crawler could not read are kept as they are.
class DirectorySaver : public ServerDB<Block<Directory*>, Block<void>> {
public:
    explicit DirectorySaver(const char* name);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<Directory*>> in) override;

    // Sets hasMusic on every ancestor of a directory that has it, following
    // parent indexes (-1 ends the chain). Throws std::out_of_range for a
    // parent index outside the block.
    void propagateMusicPresence(Block<Directory*>* block);

private:
    // PARTITION_ID, PATH, NAME, OBJECTID and PARENT_ID of a stored row.
    typedef std::array<std::string, 5> StoredRow;

    // The stored rows below the folders of `block` that the crawler could not
    // read (its operation's `unreadable`), read with `scope` on `istream`.
    // Such a folder is marked as leading to music when rows lie in or below
    // it, so that it and its ancestors stay stored too.
    std::vector<StoredRow> rowsOutOfReach(Block<Directory*>* block, const std::string& scope);
    // The object ids of the mount point's stored rows, sorted ("" for a NULL id).
    std::vector<std::string> storedIds(const std::string& mountPoint, const std::string& scope);
    // Replaces the mount point's rows by the folders of `block` that lead to
    // music and the `kept` rows not found again, in one transaction.
    void rewrite(const Block<Directory*>& block, const std::vector<StoredRow>& kept,
                 const std::set<std::string>& found, const std::string& scope);
};

}  // namespace kestrow
