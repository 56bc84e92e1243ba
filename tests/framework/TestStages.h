#pragma once
// Small stages and records for the framework's tests.

#include <pthread.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Block.h"
#include "framework/Server.h"

namespace kestrow {
namespace test {

// A record that counts its destructions.
struct Rec {
    Rec(int value_, std::atomic<int>* destroyed_) : value(value_), destroyed(destroyed_) {}
    ~Rec() { ++*destroyed; }
    int value;
    std::atomic<int>* destroyed;
};
using RecBlock = Block<Rec*>;

inline Operation op(int id, bool last) {
    return Operation(id, 0, "dev", "/media/usb", last);
}

inline boost::shared_ptr<Block<void>> token(int id, bool last = true) {
    boost::shared_ptr<Block<void>> b(new Block<void>);
    b->operation = op(id, last);
    return b;
}

inline boost::shared_ptr<RecBlock> recBlock(int id, bool last, int records,
                                            std::atomic<int>* destroyed) {
    boost::shared_ptr<RecBlock> b(new RecBlock);
    b->operation = op(id, last);
    for (int i = 0; i < records; ++i)
        b->items.push_back(new Rec(i, destroyed));
    return b;
}

// A stage with a queue and no thread: tests drive enqueue and pop themselves.
class Bare : public BaseServer<Block<void>> {
public:
    explicit Bare(const char* name_ = "Bare") : BaseServer(name_) {}
    void runLoop() override {}
};

// The end of a test chain: keeps every block it receives.
template <class T>
class Collector : public Server<T, Block<void>> {
public:
    explicit Collector(const char* name_ = "Collector") : Server<T, Block<void>>(name_) {}
    boost::shared_ptr<Block<void>> doOperation(boost::shared_ptr<T> input) override {
        std::lock_guard<std::mutex> lock(mutex_);
        got_.push_back(input);
        return boost::shared_ptr<Block<void>>();
    }
    std::vector<boost::shared_ptr<T>> got() {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }
    size_t size() { return got().size(); }
    std::vector<int> ids() {
        std::vector<int> out;
        for (const auto& b : got())
            out.push_back(b->operation.id);
        return out;
    }

private:
    std::mutex mutex_;
    std::vector<boost::shared_ptr<T>> got_;
};

// A stage whose doOperation is the test's function. Records the operations
// it was told completed, and the threads it ran on.
template <class TIN, class TOUT>
class Stage : public Server<TIN, TOUT> {
public:
    using Fn = std::function<boost::shared_ptr<TOUT>(Stage&, boost::shared_ptr<TIN>)>;
    Stage(const char* name_, Fn fn_, BaseServer<TOUT>* next_ = nullptr)
        : Server<TIN, TOUT>(name_, next_), fn(std::move(fn_)) {}

    boost::shared_ptr<TOUT> doOperation(boost::shared_ptr<TIN> input) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            threads_.push_back(pthread_self());
        }
        ++calls;
        return fn(*this, input);
    }
    void signalCompletion(const Operation& operation) override {
        std::lock_guard<std::mutex> lock(mutex_);
        completed_.push_back(operation.id);
        threads_.push_back(pthread_self());
    }
    std::vector<int> completed() {
        std::lock_guard<std::mutex> lock(mutex_);
        return completed_;
    }
    // Whether every call so far ran on the stage's own thread.
    bool ranOnOwnThread() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (pthread_t t : threads_)
            if (!pthread_equal(t, this->thread))
                return false;
        return true;
    }

    Fn fn;
    std::atomic<int> calls{0};

private:
    std::mutex mutex_;
    std::vector<int> completed_;
    std::vector<pthread_t> threads_;
};

using Token = Block<void>;
using PassStage = Stage<Token, Token>;

inline boost::shared_ptr<Token> passOn(PassStage&, boost::shared_ptr<Token> in) {
    return in;
}

// The messages of the captured lines that contain `part`, in order.
template <class Capture>
std::vector<std::string> messagesWith(const Capture& cap, const std::string& part) {
    std::vector<std::string> out;
    for (const auto& l : cap.lines())
        if (l.message.find(part) != std::string::npos)
            out.push_back(l.message);
    return out;
}

}  // namespace test
}  // namespace kestrow
