#include "platform/log/LogCapture.h"

namespace olvane {

LogCapture::LogCapture() {
    addLogSink(this);
}

LogCapture::~LogCapture() {
    removeLogSink(this);
}

void LogCapture::write(DltLogLevelType level, const char* function, const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(LogLine{level, function ? function : "", message});
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

int LogCapture::count(const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& l : lines_)
        n += l.message == message;
    return n;
}

int LogCapture::countContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& l : lines_)
        n += l.message.find(part) != std::string::npos;
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace olvane
