#include "msd/Normalizer.h"

#include <algorithm>

#include "db/Timer.h"

namespace kestrow {

Normalizer::Normalizer(const char* name_) : Server<Block<FileInfo*>, Block<FileInfo*>>(name_) {}

boost::shared_ptr<Block<FileInfo*>> Normalizer::doOperation(
    boost::shared_ptr<Block<FileInfo*>> in) {
    std::vector<FileInfo*>& items = in->items;
    ZQLOG_INFO("Normalizer for: %u (op: %d)", unsigned(items.size()), in->operation.id);
    Timer timer;
    if (in->operation.id != operationId) {
        operationId = in->operation.id;
        nextChunkSize = kFirstChunkSize;
    }
    const bool lastBlock = in->operation.lastBlock;
    if (lastBlock)
        operationId = -1;
    boost::shared_ptr<Block<FileInfo*>> chunk(new Block<FileInfo*>());
    chunk->operation = in->operation;
    if (items.empty())
        return lastBlock ? chunk : boost::shared_ptr<Block<FileInfo*>>();

    // Small chunks first, so that the first songs are saved after a few tag
    // reads rather than after 500.
    for (size_t first = 0; first < items.size();) {
        const size_t last = std::min(items.size(), first + nextChunkSize);
        nextChunkSize = std::min(kChunkSize, nextChunkSize * 2);
        const bool final = last == items.size();
        if (first != 0) {
            chunk.reset(new Block<FileInfo*>());
            chunk->operation = in->operation;
        }
        chunk->items.assign(items.begin() + long(first), items.begin() + long(last));
        std::fill(items.begin() + long(first), items.begin() + long(last), nullptr);
        chunk->operation.lastBlock = final && lastBlock;
        if (final)
            break;
        if (next)
            next->enqueue(chunk);
        else
            ZQLOG_ERROR("no next stage, %u records dropped (op: %d)", unsigned(chunk->items.size()),
                        in->operation.id);
        first = last;
    }
    items.clear();
    ZQLOG_INFO("Normalizer timer: %ld (op: %d)", timer.stop(), in->operation.id);
    return chunk;
}

}  // namespace kestrow
