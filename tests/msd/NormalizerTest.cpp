#include "msd/Normalizer.h"

#include <gtest/gtest.h>

#include "tests/msd/MsdTestSupport.h"
#include "tests/support/Wait.h"

using namespace olvane::test;
using kestrow::FileInfo;

namespace {

FileBlock records(size_t n, bool lastBlock, bool deviceGone = false) {
    FileBlock block(new kestrow::Block<FileInfo*>());
    block->operation = kestrow::Operation(5, 0, "dev1", "/media/usb1", lastBlock);
    block->operation.deviceGone = deviceGone;
    for (size_t i = 0; i < n; ++i)
        block->items.push_back(new FileInfo("/media/usb1/" + std::to_string(i), 0, int(i)));
    return block;
}

// Runs the stage's thread over `inputs`; returns what reached the next stage.
std::vector<FileBlock> run(const std::vector<FileBlock>& inputs, size_t expected) {
    kestrow::Normalizer normalizer("Normalizer");
    StageCollector<kestrow::Block<FileInfo*>> miner;
    normalizer.next = &miner;
    normalizer.launch();
    normalizer.start();
    for (const FileBlock& in : inputs)
        normalizer.enqueue(in);
    EXPECT_TRUE(waitFor([&] { return miner.blocks().size() >= expected; }));
    normalizer.stop();
    normalizer.join();
    return miner.blocks();
}

}  // namespace

TEST(NormalizerTest, ChunksOfFiveHundredWithOnlyTheFinalOneMarked) {
    FileBlock big = records(1200, true);
    const std::vector<FileInfo*> originals = big->items;
    std::vector<FileBlock> out = run({big, records(500, false), records(0, false, true)}, 5);
    ASSERT_EQ(5u, out.size());
    const size_t sizes[] = {500, 500, 200, 500, 0};
    const bool last[] = {false, false, true, true, false};  // an empty block keeps its marks
    for (size_t c = 0; c < 5; ++c) {
        EXPECT_EQ(sizes[c], out[c]->items.size()) << c;
        EXPECT_EQ(last[c], out[c]->operation.lastBlock) << c;
    }
    EXPECT_TRUE(out[4]->operation.deviceGone);
    // The same records, in order, moved out of the input block.
    std::vector<FileInfo*> moved;
    for (size_t c = 0; c < 3; ++c)
        moved.insert(moved.end(), out[c]->items.begin(), out[c]->items.end());
    EXPECT_EQ(originals, moved);
    EXPECT_TRUE(big->items.empty());
}
