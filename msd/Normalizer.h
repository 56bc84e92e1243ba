#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"

namespace kestrow {

// Cuts a block of records into chunks of at most kChunkSize, in order. Every
// chunk but the final one is enqueued into `next` at once; the final chunk is
// returned, so it reaches `next` last. Only the final chunk carries lastBlock.
// Records move from the input block to the chunks without being copied.
// Runs on the stage's own thread.
class Normalizer : public Server<Block<FileInfo*>, Block<FileInfo*>> {
public:
    static const size_t kChunkSize = 500;

    explicit Normalizer(const char* name);

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;
};

}  // namespace kestrow
