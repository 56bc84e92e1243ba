#pragma once

#include <mutex>
#include <string>

#include "platform/log/LogSink.h"

namespace olvane {
namespace tool {

// Why the library failed: the first line it logged at warning level or above
// since clear(). The first, not the last: what follows a failure is its
// clean-up (a refused request's database is deleted, which logs too).
// Registered as a log sink for its whole life. Thread-safe.
class FailureReason : public LogSink {
public:
    FailureReason();
    ~FailureReason() override;
    FailureReason(const FailureReason&) = delete;
    FailureReason& operator=(const FailureReason&) = delete;

    void clear();
    // Empty when nothing was logged at warning level or above.
    std::string text() const;

    void write(DltLogLevelType level, const char* function, const std::string& message) override;

private:
    mutable std::mutex mutex_;
    std::string text_;  // guarded by mutex_
};

}  // namespace tool
}  // namespace olvane
