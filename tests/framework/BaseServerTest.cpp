#include "framework/BaseServer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "platform/log/LogCapture.h"
#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::LogCapture;
using olvane::test::waitFor;

TEST(BaseServerTest, FullQueueHoldsProducerUntilABlockIsTakenAndKeepsOrder) {
    LogCapture cap;
    Bare stage;
    for (int id = 0; id < 100; ++id)
        stage.enqueue(token(id));
    EXPECT_EQ(1, cap.count("Bare 100 (op: 99)"));

    std::atomic<bool> done{false};
    std::thread producer([&] {
        stage.enqueue(token(100));
        done = true;
    });
    EXPECT_FALSE(waitFor([&] { return done.load(); }, 200));
    EXPECT_EQ(100, stage.queued());

    stage.start();
    EXPECT_EQ(0, stage.pop()->operation.id);
    EXPECT_EQ(1, cap.count("Bare 99 (op:0)"));
    EXPECT_TRUE(waitFor([&] { return done.load(); }));
    producer.join();
    EXPECT_EQ(1, cap.count("Bare 100 (op: 100)"));
    for (int id = 1; id <= 100; ++id)
        ASSERT_EQ(id, stage.pop()->operation.id);
    EXPECT_EQ(0, stage.queued());
}

TEST(BaseServerTest, StopDropsQueuedBlocksWithTheirRecordsAndRefusesMore) {
    std::atomic<int> destroyed{0};
    LogCapture cap;
    BaseServer<RecBlock>* stage = new Stage<RecBlock, Token>("Holder", nullptr);
    for (int id = 1; id <= 3; ++id)
        stage->enqueue(recBlock(id, true, 2, &destroyed));
    EXPECT_EQ(0, destroyed);

    stage->stop();
    EXPECT_EQ(6, destroyed);
    EXPECT_EQ(std::vector<std::string>(
                  {"Holder stop DELETING 3", "Holder stop DELETING 2", "Holder stop DELETING 1"}),
              messagesWith(cap, "DELETING"));
    char stopLine[64];
    std::snprintf(stopLine, sizeof stopLine, "Holder stop %x",
                  unsigned(reinterpret_cast<uintptr_t>(stage)));
    EXPECT_EQ(1, cap.count(stopLine));
    EXPECT_EQ(1, cap.count("Holder stopped"));
    EXPECT_EQ(1, stage->getState());

    stage->enqueue(recBlock(9, true, 1, &destroyed));
    EXPECT_EQ(1, cap.count("1: enqueue skipped block for op 9"));
    EXPECT_EQ(7, destroyed);

    stage->start();
    stage->pause();
    EXPECT_EQ(1, cap.count("SYSTEM is Stopping cannot start it again Holder"));
    EXPECT_EQ(1, cap.count("SYSTEM is Stopping cannot be paused Holder"));
    EXPECT_EQ(1, stage->getState());
    delete stage;
    EXPECT_EQ(1, cap.count("~BaseServer"));
}

TEST(BaseServerTest, PausedStageKeepsBlocksUntilStart) {
    LogCapture cap;
    Collector<Token> sink;
    PassStage stage("Worker", passOn, &sink);
    sink.launch();
    sink.start();
    stage.launch();
    for (int id = 1; id <= 3; ++id)
        stage.enqueue(token(id));
    EXPECT_FALSE(waitFor([&] { return stage.calls > 0; }, 200));

    stage.start();
    ASSERT_TRUE(waitFor([&] { return sink.size() == 3; }));
    EXPECT_EQ(std::vector<int>({1, 2, 3}), sink.ids());
    EXPECT_EQ(1, cap.count("Worker is now paused play it again"));

    stage.start();  // already running: nothing to say
    stage.pause();
    EXPECT_EQ(2, stage.getState());
    stage.enqueue(token(4));
    EXPECT_FALSE(waitFor([&] { return sink.size() == 4; }, 200));
    stage.start();
    EXPECT_EQ(2, cap.count("Worker is now paused play it again"));
    ASSERT_TRUE(waitFor([&] { return sink.size() == 4; }));

    stage.stop();
    stage.join();
    sink.stop();
    sink.join();
}

// Whether running or paused, a run loop waiting in pop() ends on stop().
TEST(BaseServerTest, StopWakesARunLoopWaitingInPop) {
    LogCapture cap;
    PassStage running("Running", passOn);
    PassStage paused("Paused", passOn);
    running.launch();
    paused.launch();
    running.start();
    running.stop();
    paused.stop();
    running.join();
    paused.join();
    EXPECT_EQ(0, running.calls + paused.calls);
    EXPECT_EQ(1, cap.count("Running EXITING Run Loop"));
    EXPECT_EQ(1, cap.count("Paused EXITING Run Loop"));
    EXPECT_EQ(1, cap.count("Running joined"));
}
