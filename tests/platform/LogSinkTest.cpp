#include "platform/log/LogSink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/log/ZQLog.h"

namespace {

struct CountingSink : olvane::LogSink {
    void write(DltLogLevelType, const char*, const std::string&) override { ++lines; }
    std::atomic<int> lines{0};
};

// A host removes its sink while other threads log, then destroys it: no
// thread may still be inside it (the sanitizer sees a call into a dead sink).
TEST(LogSinkTest, RemovedSinkMayBeDestroyedWhileOthersLog) {
    std::atomic<bool> done{false};
    auto logger = [&] {
        while (!done)
            ZQLOG_VERBOSE("busy");
    };
    std::thread a(logger), b(logger);
    for (int round = 0; round < 200; ++round) {
        auto* sink = new CountingSink;
        olvane::addLogSink(sink);
        while (sink->lines == 0)
            std::this_thread::yield();
        olvane::removeLogSink(sink);
        delete sink;
    }
    done = true;
    a.join();
    b.join();
}

}  // namespace
