#include "platform/log/LogCapture.h"

namespace olvane {

namespace {
std::mutex gInstallMutex;
LogCapture* gInstalled = nullptr;  // guarded by gInstallMutex
}  // namespace

namespace detail {
void captureLogLine(DltLogLevelType level, const char* function, const std::string& message) {
    std::lock_guard<std::mutex> lock(gInstallMutex);
    if (gInstalled)
        gInstalled->record(level, function, message);
}
}  // namespace detail

LogCapture::LogCapture() {
    std::lock_guard<std::mutex> lock(gInstallMutex);
    gInstalled = this;
}

LogCapture::~LogCapture() {
    std::lock_guard<std::mutex> lock(gInstallMutex);
    if (gInstalled == this)
        gInstalled = nullptr;
}

void LogCapture::record(DltLogLevelType level, const char* function, const std::string& message) {
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
