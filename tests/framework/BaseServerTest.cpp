#include "framework/BaseServer.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::test::waitFor;

// The stage starts paused: it takes nothing until start(), and the 101st
// block waits for room in the full queue.
TEST(BaseServerTest, FullPausedQueueHoldsProducerUntilStartAndKeepsOrder) {
    PassStage sink("Sink");
    PassStage stage("Worker", nullptr, &sink);
    launchAndStart({&sink});
    stage.launch();
    std::vector<boost::shared_ptr<Token>> sent;
    for (int id = 0; id <= 100; ++id)
        sent.push_back(block(id));
    for (int i = 0; i < 100; ++i)
        stage.enqueue(sent[i]);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        stage.enqueue(sent[100]);
        done = true;
    });
    EXPECT_FALSE(waitFor([&] { return done.load(); }, 200));
    EXPECT_TRUE(stage.got().empty());

    stage.start();
    producer.join();
    ASSERT_TRUE(waitFor([&] { return sink.got().size() == 101; }));
    EXPECT_EQ(sent, sink.got());
    stopAndJoin({&stage, &sink});
}

// stop() wakes run loops waiting in pop(), paused or running, and drops what
// is queued with its records. A stage's lines carry its name before the function.
TEST(BaseServerTest, StopDropsQueuedBlocksAndEndsTheRunLoop) {
    std::atomic<int> destroyed{0};
    olvane::LogCapture cap;
    Stage<RecBlock> paused("Holder");
    PassStage running("Running");
    paused.launch();
    launchAndStart({&running});
    for (int id = 1; id <= 3; ++id)
        paused.enqueue(block<RecBlock>(id, true, 2, &destroyed));
    stopAndJoin({&paused, &running});
    EXPECT_EQ(6, destroyed);
    EXPECT_EQ(std::vector<std::string>({"Holder::stop: Holder stop DELETING 3",
                                        "Holder::stop: Holder stop DELETING 2",
                                        "Holder::stop: Holder stop DELETING 1"}),
              linesWith(cap, "DELETING"));
    EXPECT_TRUE(paused.got().empty() && running.got().empty());
    paused.enqueue(block<RecBlock>(9, true, 1, &destroyed));  // refused and freed
    EXPECT_EQ(7, destroyed);
}
