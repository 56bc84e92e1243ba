#pragma once

#include <pthread.h>

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <cstdarg>
#include <deque>
#include <string>

#include "framework/Runnable.h"
#include "platform/log/ZQLog.h"

namespace kestrow {

// A stage's worker: one thread and one bounded queue of blocks of type T.
//
// `mutex` guards `count`, `queue` and the waits on `cond`. `state` is atomic:
// enqueue's first test, pause() and start() from running read or write it
// without the lock; the broadcasts of stop() and start() make waiters re-read
// it. No operation times out: both waits are unbounded.
//
// Once the stage is stopping, every wait ends: pop() returns an empty pointer
// and enqueue() drops its block, both releasing `mutex`. stop() may be called
// again, also after the thread has ended.
template <class T>
class BaseServer : public Runnable {
public:
    explicit BaseServer(const char* name_)
        : capacity(100), count(0), thread(0), state(kPaused), name(name_) {
        pthread_mutex_init(&mutex, nullptr);
        pthread_cond_init(&cond, nullptr);
    }

    ~BaseServer() override {
        implZQLog(0, DLT_LOG_INFO, zqPrettyFunction ? __PRETTY_FUNCTION__ : "~BaseServer", __LINE__,
                  "", "~BaseServer");
        pthread_mutex_destroy(&mutex);
        pthread_cond_destroy(&cond);
    }

    // Appends a block; waits while the queue is full. A stopping stage drops
    // it, also when it stops during the wait.
    virtual void enqueue(boost::shared_ptr<T> block) {
        bool stopping = state == kStopping;
        if (!stopping) {
            pthread_mutex_lock(&mutex);
            // The wait ends when the stage stops: a producer never waits for
            // room that a stopped run loop will not make.
            while (state != kStopping && count >= capacity)
                pthread_cond_wait(&cond, &mutex);
            stopping = state == kStopping;
            if (!stopping) {
                queue.push_back(block);
                ++count;
                ZQLOG_INFO("%s %d (op: %d)", name, count, block ? block->operation.id : -1);
                pthread_cond_broadcast(&cond);
            }
            pthread_mutex_unlock(&mutex);
        }
        if (stopping)
            ZQLOG_INFO("%d: enqueue skipped block for op %d", int(state),
                       block ? block->operation.id : -1);
    }

    // Takes the front block; waits while the queue is empty or the stage is
    // paused. Empty pointer once the stage is stopping. Run loop only.
    boost::shared_ptr<T> pop() {
        if (state == kStopping)
            return boost::shared_ptr<T>();
        pthread_mutex_lock(&mutex);
        // The state is looked at before every wait too: a stop() between the
        // test above and the lock has already broadcast.
        while (state == kStopping || count == 0 || state == kPaused) {
            if (state == kStopping) {
                // Leaves the lock free, so that a second stop() or a waiting
                // producer does not wait for it for ever.
                pthread_mutex_unlock(&mutex);
                return boost::shared_ptr<T>();
            }
            pthread_cond_wait(&cond, &mutex);
        }
        boost::shared_ptr<T> block = queue.front();
        queue.pop_front();
        --count;
        ZQLOG_INFO("%s %d (op:%d)", name, count, block ? block->operation.id : -1);
        pthread_cond_broadcast(&cond);
        pthread_mutex_unlock(&mutex);
        return block;
    }

    // For a stage that holds its pass at safe points: waits while the stage
    // is paused; true once it runs, false once it is stopping. Stage's own
    // thread; takes `mutex` only while paused.
    bool holdWhilePaused() {
        if (state == kRunning)
            return true;
        pthread_mutex_lock(&mutex);
        if (state == kPaused)
            ZQLOG_INFO("%s held while paused", name);
        while (state == kPaused)
            pthread_cond_wait(&cond, &mutex);
        const bool running = state == kRunning;
        pthread_mutex_unlock(&mutex);
        return running;
    }

    void start() override {
        int now = state;
        if (now == kStopping) {
            ZQLOG_WARN("SYSTEM is Stopping cannot start it again %s", name);
        } else if (now == kPaused) {
            ZQLOG_INFO("%s is now paused play it again", name);
            pthread_mutex_lock(&mutex);
            state.compare_exchange_strong(now, kRunning);  // a stop() meanwhile stays
            pthread_cond_broadcast(&cond);
            pthread_mutex_unlock(&mutex);
        }
    }

    void pause() override {
        int now = state;
        while (now != kStopping && !state.compare_exchange_weak(now, kPaused)) {
        }
        if (now == kStopping)
            ZQLOG_WARN("SYSTEM is Stopping cannot be paused %s", name);
    }

    void stop() override {
        ZQLOG_INFO("%s stop %x", name, unsigned(reinterpret_cast<uintptr_t>(this)));
        pthread_mutex_lock(&mutex);
        state = kStopping;
        while (count != 0) {
            ZQLOG_INFO("%s stop DELETING %d", name, count);
            queue.front().reset();
            queue.pop_front();
            --count;
        }
        pthread_cond_broadcast(&cond);
        pthread_mutex_unlock(&mutex);
        ZQLOG_INFO("%s stopped", name);
    }

    void launch() override {
        ZQLOG_DEBUG("pthread_create");
        int rc = pthread_create(&thread, nullptr, runner, static_cast<Runnable*>(this));
        if (rc != 0)
            ZQLOG_ERROR("pthread_create FAILED %d", rc);
    }

    void join() override {
        ZQLOG_INFO("%s join", name);
        pthread_join(thread, nullptr);
        ZQLOG_INFO("%s joined", name);
    }

    // The stage's log wrapper: "<name>::<function>", then the platform's log.
    void implZQLog(unsigned char context, DltLogLevelType level, const char* function, int line,
                   const char* file, const char* format, ...)
        __attribute__((format(printf, 7, 8))) {
        std::string text = std::string(name) + "::" + (function ? function : "");
        va_list args;
        va_start(args, format);
        ::vimplZQLog(context, level, text.c_str(), line, file, format, args);
        va_end(args);
    }

    int getState() const { return state; }

protected:
    int capacity;
    int count;
    std::deque<boost::shared_ptr<T>> queue;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    pthread_t thread;
    std::atomic<int> state;  // kRunning, kStopping or kPaused
    const char* name;
};

}  // namespace kestrow
