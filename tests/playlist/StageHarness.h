#pragma once
// Runs a chain of stages in tests. Waiting processes no events, so a waiting
// test runs no GLib or Qt main loop.

#include <boost/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include "framework/Block.h"
#include "framework/Server.h"

namespace olvane {
namespace test {

// Last stage of a chain: keeps every block it receives.
template <class T>
struct Collector : kestrow::Server<T, kestrow::Block<void>> {
    Collector() : kestrow::Server<T, kestrow::Block<void>>("Collector") {}
    boost::shared_ptr<kestrow::Block<void>> doOperation(boost::shared_ptr<T> input) override {
        std::lock_guard<std::mutex> lock(mutex);
        blocks.push_back(input);
        arrived.notify_all();
        return boost::shared_ptr<kestrow::Block<void>>();
    }
    bool waitForBlocks(size_t n, int timeoutMs) {
        std::unique_lock<std::mutex> lock(mutex);
        return arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [&] { return blocks.size() >= n; });
    }
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<boost::shared_ptr<T>> blocks;  // guarded by mutex
};

// Launches and starts `stages` (linked, `collector` among them), hands the
// `inputs` to `first` and waits for one block per input at `collector`; while
// they are missing after 20 s, calls `unstick` to free a stuck stage. Then
// stops and joins every stage. Returns whether the blocks came in time.
template <class TIN, class TOUT>
bool runChain(
    const std::vector<kestrow::Runnable*>& stages, kestrow::BaseServer<TIN>& first,
    const std::vector<boost::shared_ptr<TIN>>& inputs, Collector<TOUT>& collector,
    const std::function<void()>& unstick = [] {}) {
    for (kestrow::Runnable* s : stages)
        s->launch();
    for (kestrow::Runnable* s : stages)
        s->start();
    for (const boost::shared_ptr<TIN>& input : inputs)
        first.enqueue(input);
    bool ok = collector.waitForBlocks(inputs.size(), 20000);
    for (int i = 0; !ok && i < 1000 && !collector.waitForBlocks(inputs.size(), 10); ++i)
        unstick();
    for (kestrow::Runnable* s : stages)
        s->stop();
    for (kestrow::Runnable* s : stages)
        s->join();
    return ok;
}

}  // namespace test
}  // namespace olvane
