#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"
#include "platform/common/MetaDataInfo.h"

namespace kestrow {

// Reads the tags of each file of a block and emits one song record per file.
// Runs on its own thread. TagLib's diagnostics go to the log at debug level
// (a listener installed once per process); standard error is never touched.
class MSDMiner : public Server<Block<FileInfo*>, Block<MetaDataInfo*>> {
public:
    explicit MSDMiner(const char* name);

    boost::shared_ptr<Block<MetaDataInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;
};

}  // namespace kestrow
