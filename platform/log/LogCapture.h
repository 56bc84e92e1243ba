#pragma once
// Test seam: while a LogCapture lives, every formatted log line is also
// recorded in it (each live capture records every line). All members are
// thread-safe.

#include <dlt/dlt_types.h>

#include <mutex>
#include <string>
#include <vector>

#include "platform/log/LogSink.h"

namespace olvane {

struct LogLine {
    DltLogLevelType level;
    std::string function;  // the function text as logged, stage prefix included
    std::string message;   // the formatted message
};

class LogCapture : public LogSink {
public:
    LogCapture();
    ~LogCapture() override;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Number of lines whose message equals `message` exactly.
    int count(const std::string& message) const;
    // Number of lines whose message contains `part`.
    int countContaining(const std::string& part) const;
    bool contains(const std::string& part) const { return countContaining(part) > 0; }
    void clear();

    void write(DltLogLevelType level, const char* function, const std::string& message) override;

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;  // guarded by mutex_
};

}  // namespace olvane
