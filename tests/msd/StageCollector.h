#pragma once
// A stand-in for a downstream stage: keeps every block enqueued into it, in
// order, without a thread of its own. Safe to fill from a stage's thread
// while the test thread reads.

#include <boost/shared_ptr.hpp>
#include <mutex>
#include <vector>

#include "framework/BaseServer.h"

namespace olvane {
namespace test {

template <class T>
class StageCollector : public kestrow::BaseServer<T> {
public:
    StageCollector() : kestrow::BaseServer<T>("StageCollector") {}

    void enqueue(boost::shared_ptr<T> block) override {
        std::lock_guard<std::mutex> lock(mutex_);
        blocks_.push_back(block);
    }
    void runLoop() override {}

    std::vector<boost::shared_ptr<T>> blocks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return blocks_.size();
    }

private:
    mutable std::mutex mutex_;
    std::vector<boost::shared_ptr<T>> blocks_;
};

}  // namespace test
}  // namespace olvane
