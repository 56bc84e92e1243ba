#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/ServerDB.h"
#include "mtp/MtpDirectory.h"

namespace kestrow {

// Keeps DIRECTORIES in step with an MTP device's folders: when the set of
// folder ids differs from the stored one of the mount point, the whole table
// is rewritten with the block's folders, in one transaction, and
// contentModified is emitted (while the stage runs). A block whose device is
// gone is passed on without touching the database.
//
// Emits one Block<void> per operation. Runs on the stage's own thread with
// its own connections, opened and closed for each operation. Throws
// std::runtime_error("cannot open db").
class MtpDirectorySaver : public ServerDB<Block<MtpDirectory*>, Block<void>> {
public:
    explicit MtpDirectorySaver(const char* name);

    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<Block<MtpDirectory*>> in) override;
};

}  // namespace kestrow
