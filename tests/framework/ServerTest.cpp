#include "framework/Server.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "platform/log/LogCapture.h"
#include "tests/framework/TestStages.h"
#include "tests/support/Wait.h"

using namespace kestrow;
using namespace kestrow::test;
using olvane::LogCapture;
using olvane::test::waitFor;

namespace {

std::string functionOf(const LogCapture& cap, const std::string& message) {
    for (const auto& l : cap.lines())
        if (l.message == message)
            return l.function;
    return "(not logged)";
}

}  // namespace

// A failing pass still sends the operation on, as an empty block, unless the
// stage is no longer running and the block does not complete the operation.
TEST(ServerTest, FailedPassSendsAnEmptyBlockWithTheSameOperation) {
    std::atomic<int> destroyed{0};
    LogCapture cap;
    Collector<RecBlock> sink;
    Stage<RecBlock, RecBlock> stage(
        "Thrower",
        [](Stage<RecBlock, RecBlock>& self,
           boost::shared_ptr<RecBlock> in) -> boost::shared_ptr<RecBlock> {
            if (in->operation.id >= 10)
                self.pause();
            throw std::runtime_error("bad tag " + std::to_string(in->operation.id));
        },
        &sink);
    sink.launch();
    sink.start();
    stage.launch();
    stage.start();

    boost::shared_ptr<RecBlock> first = recBlock(1, true, 2, &destroyed);
    first->operation.deviceGone = true;
    stage.enqueue(first);
    first.reset();
    stage.enqueue(recBlock(2, false, 1, &destroyed));
    ASSERT_TRUE(waitFor([&] { return sink.size() == 2; }));
    EXPECT_TRUE(waitFor([&] { return destroyed == 3; }));

    stage.enqueue(recBlock(10, false, 1, &destroyed));  // paused when it fails: dropped
    ASSERT_TRUE(waitFor([&] { return stage.calls == 3; }));
    stage.start();
    stage.enqueue(recBlock(11, true, 1, &destroyed));  // paused, but completing: sent on
    ASSERT_TRUE(waitFor([&] { return sink.size() == 3; }));

    const auto got = sink.got();
    EXPECT_EQ(std::vector<int>({1, 2, 11}), sink.ids());
    for (const auto& b : got)
        EXPECT_TRUE(b->items.empty());
    EXPECT_TRUE(got[0]->operation.lastBlock);
    EXPECT_TRUE(got[0]->operation.deviceGone);
    EXPECT_EQ("/media/usb", got[0]->operation.mountPoint);
    EXPECT_FALSE(got[1]->operation.lastBlock);
    EXPECT_FALSE(got[1]->operation.deviceGone);
    EXPECT_TRUE(stage.completed().empty());
    EXPECT_EQ(1, cap.count("Thrower: an error occured: bad tag 1"));
    EXPECT_EQ(1, cap.count("Thrower: an error occured: bad tag 10"));
    EXPECT_EQ("Thrower::runLoop", functionOf(cap, "Thrower: an error occured: bad tag 1"));

    stage.stop();
    stage.join();
    sink.stop();
    sink.join();
    EXPECT_EQ("Thrower::runLoop", functionOf(cap, "Thrower EXITING Run Loop"));
}

// Running, every result goes on and completing ones are signalled; paused,
// only completing results go on, unsignalled.
TEST(ServerTest, PausedStageForwardsOnlyCompletingBlocks) {
    Collector<Token> sink;
    PassStage stage(
        "Pauser",
        [](PassStage& self, boost::shared_ptr<Token> in) {
            if (in->operation.id >= 10)
                self.pause();
            return in;
        },
        &sink);
    sink.launch();
    sink.start();
    stage.launch();
    stage.start();
    stage.enqueue(token(1, true));
    stage.enqueue(token(2, false));
    stage.enqueue(token(10, false));
    ASSERT_TRUE(waitFor([&] { return stage.calls == 3; }));
    stage.start();
    stage.enqueue(token(11, true));
    ASSERT_TRUE(waitFor([&] { return sink.size() == 3; }));
    EXPECT_EQ(std::vector<int>({1, 2, 11}), sink.ids());
    EXPECT_EQ(std::vector<int>({1}), stage.completed());
    EXPECT_TRUE(stage.ranOnOwnThread());
    stage.stop();
    stage.join();
    sink.stop();
    sink.join();
}

TEST(ServerTest, EmptyResultsAndMissingSuccessorForwardNothing) {
    Collector<Token> sink;
    PassStage evens(
        "Evens",
        [](PassStage&, boost::shared_ptr<Token> in) {
            return in->operation.id % 2 ? boost::shared_ptr<Token>() : in;
        },
        &sink);
    PassStage alone("Alone", passOn);
    for (Runnable* r : std::vector<Runnable*>{&sink, &evens, &alone}) {
        r->launch();
        r->start();
    }
    for (int id = 1; id <= 4; ++id) {
        evens.enqueue(token(id));
        alone.enqueue(token(id));
    }
    ASSERT_TRUE(waitFor([&] { return evens.calls == 4 && alone.calls == 4; }));
    ASSERT_TRUE(waitFor([&] { return sink.size() == 2; }));
    EXPECT_EQ(std::vector<int>({2, 4}), sink.ids());
    EXPECT_TRUE(alone.completed().empty());  // nothing goes on, so nothing completes here
    for (Runnable* r : std::vector<Runnable*>{&evens, &alone, &sink}) {
        r->stop();
        r->join();
    }
}

// stop() does not interrupt a pass: it finishes, its completing result goes
// on, the queued rest is dropped and the loop ends.
TEST(ServerTest, StopDuringAPassLetsItFinish) {
    std::atomic<int> destroyed{0};
    LogCapture cap;
    std::mutex m;
    std::condition_variable cv;
    bool entered = false, release = false;
    Collector<RecBlock> sink;
    Stage<RecBlock, RecBlock> stage(
        "Slow",
        [&](Stage<RecBlock, RecBlock>&, boost::shared_ptr<RecBlock> in) {
            std::unique_lock<std::mutex> lock(m);
            entered = true;
            cv.notify_all();
            cv.wait(lock, [&] { return release; });
            return in;
        },
        &sink);
    sink.launch();
    sink.start();
    stage.launch();
    stage.start();
    stage.enqueue(recBlock(1, true, 1, &destroyed));
    stage.enqueue(recBlock(2, true, 1, &destroyed));
    {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return entered; });
    }
    stage.stop();
    EXPECT_EQ(1, cap.count("Slow stop DELETING 1"));
    EXPECT_EQ(1, destroyed);
    {
        std::lock_guard<std::mutex> lock(m);
        release = true;
    }
    cv.notify_all();
    stage.join();
    EXPECT_EQ(1, stage.calls);
    EXPECT_EQ(1, cap.count("Slow EXITING Run Loop"));
    ASSERT_TRUE(waitFor([&] { return sink.size() == 1; }));
    EXPECT_EQ(1, sink.got()[0]->operation.id);
    EXPECT_EQ(1u, sink.got()[0]->items.size());
    EXPECT_TRUE(stage.completed().empty());
    sink.stop();
    sink.join();
}
