#pragma once
// Runs a chain of stages in tests: a collecting last stage and the
// launch/start/stop/join sequence around it.

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "framework/Block.h"
#include "framework/Server.h"

namespace olvane {
namespace test {

// Last stage of a chain: keeps every block it receives. Waiting for them
// processes no events, so a waiting test runs no GLib or Qt main loop.
template <class T>
class Collector : public kestrow::Server<T, kestrow::Block<void>> {
public:
    Collector() : kestrow::Server<T, kestrow::Block<void>>("Collector") {}

    boost::shared_ptr<kestrow::Block<void>> doOperation(boost::shared_ptr<T> input) override {
        std::lock_guard<std::mutex> lock(mutex_);
        blocks_.push_back(input);
        arrived_.notify_all();
        return boost::shared_ptr<kestrow::Block<void>>();
    }

    // Waits until `n` blocks have arrived or `timeoutMs` has passed.
    bool waitForBlocks(size_t n, int timeoutMs = 20000) {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                 [&] { return blocks_.size() >= n; });
    }
    boost::shared_ptr<T> at(size_t i) {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_.at(i);
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<boost::shared_ptr<T>> blocks_;  // guarded by mutex_
};

// Launches and starts `stages` (linked, `collector` among them), hands the
// `inputs` to `first`, waits until `collector` holds one block per input,
// then stops and joins every stage. Returns whether the blocks arrived.
template <class TIN, class TOUT>
bool runChain(const std::vector<kestrow::Runnable*>& stages, kestrow::BaseServer<TIN>& first,
              const std::vector<boost::shared_ptr<TIN>>& inputs, Collector<TOUT>& collector) {
    for (kestrow::Runnable* s : stages)
        s->launch();
    for (kestrow::Runnable* s : stages)
        s->start();
    for (const boost::shared_ptr<TIN>& input : inputs)
        first.enqueue(input);
    bool ok = collector.waitForBlocks(inputs.size());
    for (kestrow::Runnable* s : stages)
        s->stop();
    for (kestrow::Runnable* s : stages)
        s->join();
    return ok;
}

}  // namespace test
}  // namespace olvane
