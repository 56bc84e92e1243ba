#include "framework/Server.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::test::waitFor;

namespace {

using Pass = std::function<boost::shared_ptr<RecBlock>(boost::shared_ptr<RecBlock>)>;

struct Outcome {
    std::atomic<int> destroyed{0};  // records of the blocks sent
    std::vector<boost::shared_ptr<RecBlock>> got;
    std::vector<int> completed;
};

// Sends blocks 1 (completing), 2, 10 and 11 (completing) through a stage doing
// `pass`. Ids from 10 pause the stage during their pass; it is started again
// once block 10 has gone on. Paused, the stage still hands every result on.
void feed(const Pass& pass, Outcome& out) {
    Stage<RecBlock> sink("Sink");
    Stage<RecBlock> stage(
        "Stage",
        [&](Stage<RecBlock>& self, boost::shared_ptr<RecBlock> in) {
            if (in->operation.id >= 10)
                self.pause();
            return pass(in);
        },
        &sink);
    launchAndStart({&sink, &stage});
    for (int id : {1, 2, 10})
        stage.enqueue(block<RecBlock>(id, id == 1, 1, &out.destroyed));
    ASSERT_TRUE(waitFor([&] { return sink.got().size() == 3; }));
    stage.start();
    stage.enqueue(block<RecBlock>(11, true, 1, &out.destroyed));
    ASSERT_TRUE(waitFor([&] { return sink.got().size() == 4; }));
    stopAndJoin({&stage, &sink});
    out.got = sink.got();
    out.completed = stage.completed;
    std::vector<int> ids;
    for (const auto& b : out.got)
        ids.push_back(b->operation.id);
    EXPECT_EQ(std::vector<int>({1, 2, 10, 11}), ids);
}

}  // namespace

// Running or paused, every result goes on and completing ones are signalled.
// A failing pass sends the operation on as an empty block, unsignalled.
TEST(ServerTest, PausedStageHandsEveryResultOnAndFailuresSendEmptyOnes) {
    Outcome passed, failed;
    feed([](boost::shared_ptr<RecBlock> in) { return in; }, passed);
    EXPECT_EQ(std::vector<int>({1, 11}), passed.completed);

    feed(
        [](boost::shared_ptr<RecBlock> in) -> boost::shared_ptr<RecBlock> {
            in->operation.deviceGone = true;
            throw std::runtime_error("bad tag");
        },
        failed);
    for (const auto& b : failed.got) {
        SCOPED_TRACE(b->operation.id);
        EXPECT_TRUE(b->items.empty());
        EXPECT_EQ(b->operation.id == 1 || b->operation.id == 11, b->operation.lastBlock);
        EXPECT_TRUE(b->operation.deviceGone);
        EXPECT_EQ("/media/usb", b->operation.mountPoint);
    }
    EXPECT_TRUE(failed.completed.empty());
    EXPECT_EQ(4, failed.destroyed);
}
