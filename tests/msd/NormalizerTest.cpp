#include "msd/Normalizer.h"

#include <gtest/gtest.h>

#include "tests/msd/MsdTestSupport.h"

using namespace olvane::test;

TEST(NormalizerTest, ChunksOfFiveHundredWithOnlyTheFinalOneMarked) {
    FileBlock big(new kestrow::Block<FileInfo*>());
    big->operation = kestrow::Operation(5, 0, "dev1", "/media/usb1", true);
    for (int i = 0; i < 1200; ++i)
        big->items.push_back(new FileInfo("/media/usb1/" + std::to_string(i), 0, i));
    const std::vector<FileInfo*> originals = big->items;
    kestrow::Normalizer normalizer("Normalizer");
    StageCollector<kestrow::Block<FileInfo*>> miner;
    normalizer.next = &miner;
    // The returned chunk is passed on by the stage's loop, after the others.
    miner.blocks.push_back(normalizer.doOperation(big));
    ASSERT_EQ(3u, miner.blocks.size());
    std::vector<FileInfo*> moved;
    for (size_t c = 0; c < 3; ++c) {
        EXPECT_EQ(c < 2 ? 500u : 200u, miner.blocks[c]->items.size()) << c;
        EXPECT_EQ(c == 2, miner.blocks[c]->operation.lastBlock) << c;
        moved.insert(moved.end(), miner.blocks[c]->items.begin(), miner.blocks[c]->items.end());
    }
    EXPECT_EQ(originals, moved);  // the same records, in order
}
