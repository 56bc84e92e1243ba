#pragma once
// Test seam: while a LogCapture lives, every formatted log line is also
// recorded in it. Only one capture may be installed at a time; a second one
// replaces the first until it dies. All members are thread-safe.

#include <dlt/dlt_types.h>

#include <mutex>
#include <string>
#include <vector>

namespace olvane {

struct LogLine {
    DltLogLevelType level;
    std::string function;  // the function text as logged, stage prefix included
    std::string message;   // the formatted message
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const;
    // Number of lines whose message equals `message` exactly.
    int count(const std::string& message) const;
    // Number of lines whose message contains `part`.
    int countContaining(const std::string& part) const;
    bool contains(const std::string& part) const { return countContaining(part) > 0; }
    void clear();

    void record(DltLogLevelType level, const char* function, const std::string& message);

private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;  // guarded by mutex_
};

namespace detail {
// Called by the logging library for every line: hands it to the installed
// capture, if any.
void captureLogLine(DltLogLevelType level, const char* function, const std::string& message);
}  // namespace detail

}  // namespace olvane
