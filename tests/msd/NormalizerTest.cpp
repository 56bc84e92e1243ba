#include "msd/Normalizer.h"

#include <gtest/gtest.h>

#include "tests/msd/StageCollector.h"
#include "tests/support/Wait.h"

using kestrow::Block;
using kestrow::FileInfo;
using kestrow::Normalizer;
using FileBlock = boost::shared_ptr<Block<FileInfo*>>;

namespace {

FileBlock records(size_t n, bool lastBlock, bool deviceGone) {
    FileBlock block(new Block<FileInfo*>());
    block->operation = kestrow::Operation(5, 0, "dev1", "/media/usb1", lastBlock);
    block->operation.deviceGone = deviceGone;
    for (size_t i = 0; i < n; ++i)
        block->items.push_back(new FileInfo("/media/usb1/" + std::to_string(i), 0, int(i)));
    return block;
}

// Runs the stage's thread over `inputs` and returns what reached the next stage.
std::vector<FileBlock> run(const std::vector<FileBlock>& inputs, size_t expected) {
    Normalizer normalizer("Normalizer");
    olvane::test::StageCollector<Block<FileInfo*>> miner;
    normalizer.next = &miner;
    normalizer.launch();
    normalizer.start();
    for (const FileBlock& in : inputs)
        normalizer.enqueue(in);
    EXPECT_TRUE(olvane::test::waitFor([&] { return miner.size() >= expected; }));
    normalizer.stop();
    normalizer.join();
    return miner.blocks();
}

}  // namespace

TEST(NormalizerTest, CutsIntoChunksOfFiveHundredMarkingOnlyTheLast) {
    FileBlock in = records(1200, true, false);
    const std::vector<FileInfo*> originals = in->items;
    std::vector<FileBlock> out = run({in}, 3);
    ASSERT_EQ(3u, out.size());
    const size_t sizes[] = {500, 500, 200};
    size_t at = 0;
    for (size_t c = 0; c < 3; ++c) {
        ASSERT_EQ(sizes[c], out[c]->items.size());
        EXPECT_EQ(c == 2, out[c]->operation.lastBlock) << c;
        EXPECT_EQ(5, out[c]->operation.id);
        for (FileInfo* f : out[c]->items)
            EXPECT_EQ(originals[at++], f);  // same records, same order
    }
    for (FileInfo* f : in->items)
        EXPECT_EQ(nullptr, f);
}

TEST(NormalizerTest, SmallAndEmptyBlocks) {
    // Exactly one chunk: returned and marked, whatever the input said.
    std::vector<FileBlock> out = run({records(500, false, false), records(0, false, true)}, 2);
    ASSERT_EQ(2u, out.size());
    EXPECT_EQ(500u, out[0]->items.size());
    EXPECT_TRUE(out[0]->operation.lastBlock);
    // An empty input keeps its own marks.
    EXPECT_TRUE(out[1]->items.empty());
    EXPECT_FALSE(out[1]->operation.lastBlock);
    EXPECT_TRUE(out[1]->operation.deviceGone);
}
