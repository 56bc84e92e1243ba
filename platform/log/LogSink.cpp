#include "platform/log/LogSink.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace olvane {

namespace {
std::mutex gSinksMutex;
// Never destroyed: threads may still log while the process exits.
std::vector<LogSink*>& sinks() {  // guarded by gSinksMutex
    static std::vector<LogSink*>* registered = new std::vector<LogSink*>();
    return *registered;
}
}  // namespace

LogSink::~LogSink() = default;

void addLogSink(LogSink* sink) {
    std::lock_guard<std::mutex> lock(gSinksMutex);
    std::vector<LogSink*>& all = sinks();
    if (sink && std::find(all.begin(), all.end(), sink) == all.end())
        all.push_back(sink);
}

void removeLogSink(LogSink* sink) {
    std::lock_guard<std::mutex> lock(gSinksMutex);
    std::vector<LogSink*>& all = sinks();
    all.erase(std::remove(all.begin(), all.end(), sink), all.end());
}

namespace detail {
void dispatchLogLine(DltLogLevelType level, const char* function, const std::string& message) {
    std::lock_guard<std::mutex> lock(gSinksMutex);
    for (LogSink* sink : sinks())
        sink->write(level, function, message);
}
}  // namespace detail

}  // namespace olvane
