#pragma once
// The logging library's sinks: a host registers a LogSink to receive every
// log line of the process, at every level, whatever OLVANE_LOG says (for
// example to report why a request failed). All functions are thread-safe.

#include <dlt/dlt_types.h>

#include <string>

namespace olvane {

class LogSink {
public:
    virtual ~LogSink();

    // Called on the thread that logs, with the sinks' lock held: it must
    // return quickly, and must neither log nor add or remove sinks.
    // `function` is the function text as logged (a stage prefix included),
    // `message` the formatted message.
    virtual void write(DltLogLevelType level, const char* function, const std::string& message) = 0;
};

// Registers `sink` (not owned) for every line logged from now on. A sink
// registered twice receives each line once.
void addLogSink(LogSink* sink);
// Unregisters `sink`. On return no thread is inside sink->write() and none
// will enter it, so the sink may be destroyed.
void removeLogSink(LogSink* sink);

namespace detail {
// Called by the logging library for every line: hands it to each sink.
void dispatchLogLine(DltLogLevelType level, const char* function, const std::string& message);
}  // namespace detail

}  // namespace olvane
