#pragma once

#include <boost/shared_ptr.hpp>
#include <exception>

#include "framework/BaseServer.h"
#include "framework/Block.h"

namespace kestrow {

// A stage: its thread turns each TIN block into at most one TOUT block and
// hands it to `next`, also when the stage was paused during the pass; once
// stopping, only a block that completes an operation goes on. `next` is not
// owned, is wired before launch() and never changes while the thread runs.
// doOperation and signalCompletion run on the stage's own thread only;
// doOperation may throw std::exception.
template <class TIN, class TOUT>
class Server : public BaseServer<TIN> {
public:
    explicit Server(const char* name_, BaseServer<TOUT>* next_ = nullptr)
        : BaseServer<TIN>(name_), next(next_) {}

    // The ZQLOG macros below reach the stage's wrapper, not the plain log
    // function: names of a dependent base are not found without this.
    using BaseServer<TIN>::implZQLog;

    virtual boost::shared_ptr<TOUT> doOperation(boost::shared_ptr<TIN> /*input*/) {
        return boost::shared_ptr<TOUT>();
    }

    void runLoop() override {
        for (;;) {
            boost::shared_ptr<TIN> input = this->pop();
            if (!input || this->state == Runnable::kStopping)
                break;
            boost::shared_ptr<TOUT> result;
            try {
                result = doOperation(input);
                if (next && result) {
                    // A paused stage hands its result on as a running one
                    // does: pausing holds work, it never drops it. Only a
                    // stopping stage keeps back all but a completing block.
                    const bool stopping = this->state == Runnable::kStopping;
                    if (!stopping && result->operation.lastBlock)
                        this->signalCompletion(result->operation);
                    if (!stopping || result->operation.lastBlock)
                        next->enqueue(result);
                }
            } catch (const std::exception& e) {
                ZQLOG_ERROR("%s: an error occured: %s", this->name, e.what());
                // Paused or running, the failed block's operation goes on.
                if (next && (this->state != Runnable::kStopping || input->operation.lastBlock)) {
                    boost::shared_ptr<TOUT> empty(new TOUT());
                    empty->operation = input->operation;
                    next->enqueue(empty);
                }
            }
            result.reset();
            input.reset();
            if (this->state == Runnable::kStopping)
                break;
        }
        ZQLOG_INFO("%s EXITING Run Loop", this->name);
    }

    BaseServer<TOUT>* next;
};

}  // namespace kestrow
