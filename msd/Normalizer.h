#pragma once

#include <boost/shared_ptr.hpp>

#include "framework/Block.h"
#include "framework/Server.h"
#include "msd/FileInfo.h"

namespace kestrow {

// Cuts the blocks of records of an operation into chunks, in order: the
// operation's first chunk holds at most kFirstChunkSize records and each next
// one at most twice as many as the one before, up to kChunkSize, so that the
// first songs are saved after a few tag reads and later ones in few
// transactions. Every chunk but a block's final one is enqueued into `next` at
// once; the final chunk is returned, so it reaches `next` last. Only the final
// chunk of a block marked lastBlock carries lastBlock; an empty block that is
// not marked gives nothing. Records move from the input block to the chunks
// without being copied. Runs on the stage's own thread.
class Normalizer : public Server<Block<FileInfo*>, Block<FileInfo*>> {
public:
    static constexpr size_t kFirstChunkSize = 8;
    static constexpr size_t kChunkSize = 500;

    explicit Normalizer(const char* name);

    boost::shared_ptr<Block<FileInfo*>> doOperation(
        boost::shared_ptr<Block<FileInfo*>> in) override;

private:
    // State below belongs to the operation being cut; stage's thread only.
    int operationId = -1;
    size_t nextChunkSize = kFirstChunkSize;
};

}  // namespace kestrow
