#include "framework/BaseServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
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

namespace {

// A pass-through stage whose queue holds two blocks, so that a short flood
// fills every queue of a chain.
struct Narrow : Stage<RecBlock> {
    Narrow(const char* name_, BaseServer<RecBlock>* next_)
        : Stage<RecBlock>(
              name_, [](Stage<RecBlock>&, boost::shared_ptr<RecBlock> in) { return in; }, next_) {
        capacity = 2;
    }
};

}  // namespace

// A producer floods a -> b -> c while stages run, wait paused or block on a
// full successor; another thread stops them (one twice) at random moments
// while this one joins them, and one is stopped again after all have ended.
// A round that does not end within the watchdog's bound aborts the test.
// Every block is freed once all have ended.
TEST(BaseServerTest, StoppingAtAnyMomentNeverHangsTheChainNorKeepsBlocks) {
    std::atomic<int> rounds{0};
    std::thread chains([&] {
        std::mt19937 rng(20240611);
        auto pick = [&](int n) { return int(rng() % unsigned(n)); };
        auto jitter = [](std::mt19937& r) {
            for (volatile unsigned y = r() % 4000; y > 0; y = y - 1) {
            }
        };
        for (; rounds < 1000; ++rounds) {
            std::atomic<int> made{0}, freed{0};
            Narrow c("C", nullptr), b("B", &c), a("A", &b);
            Runnable* stages[] = {&a, &b, &c};
            for (Runnable* s : stages) {
                s->launch();
                if (pick(3))
                    s->start();
            }
            std::thread producer([&] {
                for (int i = 0; i < 12; ++i, ++made)
                    a.enqueue(block<RecBlock>(i, false, 1, &freed));
            });
            std::vector<int> stopOrder = {0, 1, 2, pick(3)}, joinOrder = {0, 1, 2};
            std::shuffle(stopOrder.begin(), stopOrder.end(), rng);
            std::shuffle(joinOrder.begin(), joinOrder.end(), rng);
            std::thread stopper([&, r = std::mt19937(rng())]() mutable {
                for (int s : stopOrder) {
                    jitter(r);
                    stages[s]->stop();
                }
            });
            for (int s : joinOrder) {
                jitter(rng);
                stages[s]->join();
            }
            stopper.join();
            producer.join();
            stages[pick(3)]->stop();
            EXPECT_EQ(made, freed) << "round " << rounds;
        }
    });
    for (int seen = 0; seen < 1000; seen = rounds) {
        if (!waitFor([&] { return rounds > seen; }, 30000)) {
            std::fprintf(stderr, "round %d: a stop or a join hung\n", seen);
            std::abort();
        }
    }
    chains.join();
}
