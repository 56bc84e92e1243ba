#pragma once
// A device pipeline whose pace the test controls, for driving the scheduler
// through its real code. Its one stage waits at a gate until the test opens
// it for the device, then sends the pipeline the three completion blocks
// that the savers of a real pipeline would send.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "facade/KestrowQTProxy.h"
#include "framework/Server.h"
#include "msd/Directory.h"
#include "orchestration/Kestrow.h"
#include "orchestration/SongDirectoryPipeline.h"
#include "platform/common/DatabaseMgr.h"
#include "tests/support/TempDir.h"

namespace olvane {
namespace test {

using kestrow::Block;

// Which devices may finish; opening is sticky. Waiters also wake on notify().
struct Gate {
    void open(const std::string& deviceId) {
        std::lock_guard<std::mutex> lock(mutex);
        opened.insert(deviceId);
        cond.notify_all();
    }
    void notify() {
        std::lock_guard<std::mutex> lock(mutex);
        cond.notify_all();
    }
    std::mutex mutex;
    std::condition_variable cond;
    std::set<std::string> opened;  // guarded by mutex
};

class GatedCrawler : public kestrow::Server<Block<kestrow::Directory*>, Block<void>> {
public:
    // `arrived` outlives the stage: it is set once a root block has arrived.
    GatedCrawler(kestrow::BaseServer<Block<void>>* pipeline, Gate* gate, std::atomic<bool>* arrived)
        : Server("GatedCrawler"), pipeline_(pipeline), gate_(gate), arrived_(arrived) {}

    boost::shared_ptr<Block<void>> doOperation(
        boost::shared_ptr<Block<kestrow::Directory*>> in) override {
        *arrived_ = true;
        std::unique_lock<std::mutex> lock(gate_->mutex);
        gate_->cond.wait(lock,
                         [&] { return gate_->opened.count(in->operation.deviceId) || state == kestrow::Runnable::kStopping; });
        for (int i = 0; state != 1 && i < kestrow::SongDirectoryPipeline::kTerminalStages; ++i) {
            boost::shared_ptr<Block<void>> done(new Block<void>());
            done->operation = in->operation;
            pipeline_->enqueue(done);
        }
        return boost::shared_ptr<Block<void>>();
    }

    void stop() override {
        Server::stop();
        gate_->notify();
    }

private:
    kestrow::BaseServer<Block<void>>* pipeline_;
    Gate* gate_;
    std::atomic<bool>* arrived_;
};

class TestPipeline : public kestrow::SongDirectoryPipeline {
public:
    // `destroyed` and `started` outlive the pipeline: the scheduler's thread
    // deletes it while the test looks at them.
    TestPipeline(kestrow::Kestrow* owner, kestrow::OperationType type, Gate* gate,
                 std::atomic<int>* destroyed, std::atomic<bool>* started)
        : SongDirectoryPipeline("TestPipeline", owner, type),
          crawler_(new GatedCrawler(this, gate, started)),
          destroyed_(destroyed) {
        children.push_back(crawler_);
    }
    ~TestPipeline() override { ++*destroyed_; }

    void enqueueNewOperation(kestrow::KestrowOperation& operation, bool isFirstPartition) override {
        if (throwOnEnqueue)
            throw std::runtime_error("cannot set up the operation");
        SongDirectoryPipeline::enqueueNewOperation(operation, isFirstPartition);
    }
    kestrow::BaseServer<Block<kestrow::Directory*>>* crawler() override { return crawler_; }
    int runState() const { return getState(); }

    bool throwOnEnqueue = false;

private:
    GatedCrawler* crawler_;
    std::atomic<int>* destroyed_;
};

// A launched and started scheduler, handed to the facade, that builds
// TestPipelines. Pipelines die with the scheduler: look at `destroyed`.
class SchedulerTest : public ::testing::Test {
protected:
    void SetUp() override {
        DatabaseMgr::instance().setDatabaseDirectory(tmp.path());
        k->setPipelineFactory([this](kestrow::OperationType type, kestrow::Kestrow* owner) {
            TestPipeline* p = new TestPipeline(owner, type, &gate, &destroyed[created.size()],
                                               &started[created.size()]);
            p->throwOnEnqueue = throwNext;
            throwNext = false;
            created.push_back(p);
            types.push_back(type);
            return p;
        });
        k->launch();
        k->start();
        KestrowQTProxy::instance().setScheduler(k);
    }
    void TearDown() override {
        if (!stopped)
            k->stop();
        k->join();
        KestrowQTProxy::instance().setScheduler(nullptr);
        delete k;
    }
    bool running(size_t i) { return !destroyed[i] && started[i]; }

    TempDir tmp;
    Gate gate;
    kestrow::Kestrow* k = new kestrow::Kestrow();
    std::vector<TestPipeline*> created;
    std::vector<kestrow::OperationType> types;
    std::array<std::atomic<int>, 16> destroyed{};
    std::array<std::atomic<bool>, 16> started{};
    bool throwNext = false;
    bool stopped = false;
};

}  // namespace test
}  // namespace olvane
