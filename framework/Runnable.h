#pragma once

#include "framework/Operation.h"

namespace kestrow {

// What pipelines and the scheduler drive a stage through, whatever its block
// types. Lifecycle: construct (paused), launch, start, stop, join, delete.
class Runnable {
public:
    // A stage's run state.
    static constexpr int kRunning = 0;
    static constexpr int kStopping = 1;
    static constexpr int kPaused = 2;

    virtual void join() = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
    virtual void pause() = 0;
    virtual void launch() = 0;
    // Called on the stage's own thread when an operation completes in it.
    virtual void signalCompletion(const Operation&) {}
    virtual ~Runnable() {}
    virtual void runLoop() = 0;
};

// Thread entry: runs `arg` (a Runnable*) and returns null.
void* runner(void* arg);

}  // namespace kestrow
