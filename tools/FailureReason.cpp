#include "tools/FailureReason.h"

namespace olvane {
namespace tool {

FailureReason::FailureReason() {
    addLogSink(this);
}

FailureReason::~FailureReason() {
    removeLogSink(this);
}

void FailureReason::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    text_.clear();
}

std::string FailureReason::text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_;
}

void FailureReason::write(DltLogLevelType level, const char* /*function*/,
                          const std::string& message) {
    if (level != DLT_LOG_FATAL && level != DLT_LOG_ERROR && level != DLT_LOG_WARN)
        return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (text_.empty())
        text_ = message;
}

}  // namespace tool
}  // namespace olvane
