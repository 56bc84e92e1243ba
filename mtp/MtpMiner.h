#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "platform/common/MetaDataInfo.h"

namespace kestrow {

// Makes one song record per track of a block, through an MtpConnection of the
// block's device, in input order. The output block has one slot per input
// file; records fill the slots from the first, and the slots left over stay
// null (a track with no record, the device gone, the database full). A
// device gone by the end of the block marks the output deviceGone.
// Runs on the stage's own thread.
class MtpMiner : public Server<Block<FileInfo*>, Block<MetaDataInfo*>> {
public:
    explicit MtpMiner(const char* name);

    boost::shared_ptr<Block<MetaDataInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;
};

}  // namespace kestrow
