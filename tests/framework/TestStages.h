#pragma once
// Small stages and records for the framework's tests.

#include <atomic>
#include <functional>
#include <type_traits>

#include "framework/Block.h"
#include "framework/Server.h"
#include "platform/log/LogCapture.h"  // also std::mutex, string, vector

namespace kestrow::test {

// A record that counts its destructions.
struct Rec {
    ~Rec() { ++*destroyed; }
    std::atomic<int>* destroyed;
};
using RecBlock = Block<Rec*>;
using Token = Block<void>;

template <class B = Token>
boost::shared_ptr<B> block(int id, bool last = true, int n = 0, std::atomic<int>* freed = nullptr) {
    boost::shared_ptr<B> b(new B);
    b->operation = Operation(id, 0, "dev", "/media/usb", last);
    if constexpr (!std::is_same<B, Token>::value)
        for (int i = 0; i < n; ++i)
            b->items.push_back(new Rec{freed});
    return b;
}

// A stage running the test's function; without one it keeps every block it
// receives (see got()) and sends it on. `completed` lists the operations it
// was told completed; read it after join().
template <class TIN, class TOUT = TIN>
struct Stage : Server<TIN, TOUT> {
    using Fn = std::function<boost::shared_ptr<TOUT>(Stage&, boost::shared_ptr<TIN>)>;
    explicit Stage(const char* name_, Fn fn_ = nullptr, BaseServer<TOUT>* next_ = nullptr)
        : Server<TIN, TOUT>(name_, next_), fn(std::move(fn_)) {}

    boost::shared_ptr<TOUT> doOperation(boost::shared_ptr<TIN> in) override {
        if (fn)
            return fn(*this, in);
        std::lock_guard<std::mutex> lock(mutex_);
        got_.push_back(in);
        return in;
    }
    void signalCompletion(const Operation& op) override { completed.push_back(op.id); }
    std::vector<boost::shared_ptr<TIN>> got() {
        std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }

    Fn fn;
    std::vector<int> completed;
    std::mutex mutex_;
    std::vector<boost::shared_ptr<TIN>> got_;
};
using PassStage = Stage<Token>;

inline void launchAndStart(std::initializer_list<Runnable*> stages) {
    for (Runnable* r : stages)
        r->launch(), r->start();
}

inline void stopAndJoin(std::initializer_list<Runnable*> stages) {
    for (Runnable* r : stages)
        r->stop(), r->join();
}

// "function: message" of the captured lines whose message contains `part`.
inline std::vector<std::string> linesWith(const olvane::LogCapture& cap, const std::string& part) {
    std::vector<std::string> out;
    for (const auto& l : cap.lines())
        if (l.message.find(part) != std::string::npos)
            out.push_back(l.function + ": " + l.message);
    return out;
}

}  // namespace kestrow::test
