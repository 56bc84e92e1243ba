#pragma once

#include <vector>

#include "framework/Server.h"

namespace kestrow {

// A stage that owns child stages and drives them as one. Its queue receives
// the completion tokens of its chains and passes each on to `next`.
// The fan-out operations run on the caller's thread and take no lock of the
// pipeline's own. The destructor deletes the children but neither stops nor
// joins: the owner calls stop() and join() first.
template <class TIN, class TOUT>
class Pipeline : public Server<TIN, TOUT> {
public:
    explicit Pipeline(const char* name_, BaseServer<TOUT>* next_ = nullptr)
        : Server<TIN, TOUT>(name_, next_) {}

    ~Pipeline() override {
        for (size_t i = 0; i < children.size(); ++i)
            delete children[i];
        std::vector<Runnable*>().swap(children);
    }

    void launch() override {
        BaseServer<TIN>::launch();
        for (size_t i = 0; i < children.size(); ++i)
            if (children[i])
                children[i]->launch();
    }

    void start() override {
        for (size_t i = 0; i < children.size(); ++i)
            if (children[i])
                children[i]->start();
        BaseServer<TIN>::start();
    }

    void pause() override {
        ::implZQLog(0, DLT_LOG_INFO, zqPrettyFunction ? __PRETTY_FUNCTION__ : __func__, __LINE__,
                    "", "pause");
        for (size_t i = 0; i < children.size(); ++i)
            if (children[i])
                children[i]->pause();
        BaseServer<TIN>::pause();
    }

    void stop() override {
        ::implZQLog(0, DLT_LOG_INFO, zqPrettyFunction ? __PRETTY_FUNCTION__ : __func__, __LINE__,
                    "", "stop %x", unsigned(reinterpret_cast<uintptr_t>(this)));
        for (size_t i = 0; i < children.size(); ++i)
            if (children[i])
                children[i]->stop();
        BaseServer<TIN>::stop();
    }

    void join() override {
        BaseServer<TIN>::join();
        for (size_t i = children.size(); i-- > 0;)
            if (children[i])
                children[i]->join();
    }

    // Passes the token on unchanged: the same block goes to `next`.
    boost::shared_ptr<TOUT> doOperation(boost::shared_ptr<TIN> input) override { return input; }

    std::vector<Runnable*> children;  // owned; in the order the device pipeline added them
};

}  // namespace kestrow
