#include "framework/Block.h"

#include <gtest/gtest.h>

#include "tests/framework/TestStages.h"

using namespace kestrow;
using namespace kestrow::test;

TEST(BlockTest, DeletesItsRecordsOnceAndSparesMovedOnes) {
    std::atomic<int> destroyed{0};
    boost::shared_ptr<RecBlock> from = block<RecBlock>(1, true, 3, &destroyed);
    from->items.insert(from->items.begin() + 1, nullptr);
    boost::shared_ptr<RecBlock> to(new RecBlock);
    to->items.push_back(from->items[2]);  // moved out
    from->items[2] = nullptr;
    boost::shared_ptr<RecBlock> alias = from;
    from.reset();
    EXPECT_EQ(0, destroyed);
    alias.reset();
    EXPECT_EQ(2, destroyed);
    to.reset();
    EXPECT_EQ(3, destroyed);
}

TEST(BlockTest, OperationCopiesCarryDeviceGone) {
    Operation made(4, 7u, "dev", "/mnt", true);
    EXPECT_FALSE(made.deviceGone);
    made.deviceGone = true;
    const Operation copy(made);
    EXPECT_EQ(4, copy.id);
    EXPECT_EQ(7u, copy.handle);
    EXPECT_EQ("dev", copy.deviceId);
    EXPECT_TRUE(copy.lastBlock);
    EXPECT_TRUE(copy.deviceGone);
}
