#pragma once
// A device pipeline whose pace the test controls, for driving the scheduler
// through its real code. Its one stage waits at a gate until the test opens
// it for the device, then sends the pipeline the three completion blocks
// that the savers of a real pipeline would send.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include "framework/Server.h"
#include "msd/Directory.h"
#include "orchestration/Kestrow.h"
#include "orchestration/SongDirectoryPipeline.h"

namespace olvane {
namespace test {

// Which devices may finish; opening is sticky.
class Gate {
public:
    void open(const std::string& deviceId) {
        std::lock_guard<std::mutex> lock(mutex_);
        open_.insert(deviceId);
        cond_.notify_all();
    }
    // Waits until `deviceId` is open or `aborted()` returns true.
    void wait(const std::string& deviceId, const std::function<bool()>& aborted) {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [&] { return open_.count(deviceId) > 0 || aborted(); });
    }
    void wakeAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        cond_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::set<std::string> open_;  // guarded by mutex_
};

class GatedCrawler
    : public kestrow::Server<kestrow::Block<kestrow::Directory*>, kestrow::Block<void>> {
public:
    GatedCrawler(kestrow::BaseServer<kestrow::Block<void>>* pipeline, Gate* gate)
        : Server("GatedCrawler"), pipeline_(pipeline), gate_(gate) {}

    boost::shared_ptr<kestrow::Block<void>> doOperation(
        boost::shared_ptr<kestrow::Block<kestrow::Directory*>> in) override {
        started = true;
        gate_->wait(in->operation.deviceId, [this] { return state == 1; });
        if (state == 1)
            return boost::shared_ptr<kestrow::Block<void>>();
        for (int i = 0; i < kestrow::SongDirectoryPipeline::kTerminalStages; ++i) {
            boost::shared_ptr<kestrow::Block<void>> done(new kestrow::Block<void>());
            done->operation = in->operation;
            done->operation.deviceGone = i == 0 && deviceGone;
            pipeline_->enqueue(done);
        }
        return boost::shared_ptr<kestrow::Block<void>>();
    }

    void stop() override {
        Server::stop();
        gate_->wakeAll();
    }

    bool deviceGone = false;
    std::atomic<bool> started{false};  // set on the stage thread when a root block arrives

private:
    kestrow::BaseServer<kestrow::Block<void>>* pipeline_;
    Gate* gate_;
};

class TestPipeline : public kestrow::SongDirectoryPipeline {
public:
    TestPipeline(kestrow::Kestrow* owner, kestrow::OperationType type, Gate* gate,
                 int* destroyed = nullptr)
        : SongDirectoryPipeline("TestPipeline", owner, type), destroyed_(destroyed) {
        crawler_ = new GatedCrawler(this, gate);
        crawler_->next = nullptr;
        children.push_back(crawler_);
    }
    ~TestPipeline() override {
        if (destroyed_)
            ++*destroyed_;
    }

    void enqueueNewOperation(kestrow::KestrowOperation& operation, bool isFirstPartition) override {
        if (throwOnEnqueue)
            throw std::runtime_error("cannot set up the operation");
        SongDirectoryPipeline::enqueueNewOperation(operation, isFirstPartition);
    }

    kestrow::BaseServer<kestrow::Block<kestrow::Directory*>>* crawler() override {
        return crawler_;
    }
    GatedCrawler* gated() { return crawler_; }
    int runState() const { return getState(); }

    bool throwOnEnqueue = false;

private:
    GatedCrawler* crawler_;
    int* destroyed_;
};

}  // namespace test
}  // namespace olvane
