#include "platform/log/ZQLog.h"

#include <dlt/dlt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/log/LogSink.h"

unsigned char zqPrettyFunction = 0;

namespace {

// libdlt reaches the daemon through the FIFO "dlt" in $DLT_PIPE_DIR (/tmp by
// default). Registering with libdlt while no daemon reads it makes libdlt
// print a retry warning and wait for seconds in its exit handler; so we
// register only once a reader is there, looking again at most every
// kRecheck while there is none.
constexpr std::chrono::seconds kRecheck(2);

std::string daemonFifo() {
    const char* dir = std::getenv("DLT_PIPE_DIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/dlt";
}

bool daemonListening() {
    const std::string fifo = daemonFifo();
    struct stat st;
    if (::stat(fifo.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode))
        return false;
    // Opening a FIFO for writing without blocking fails with ENXIO when no
    // process has it open for reading.
    int fd = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

// The process's one DLT application and context, registered lazily.
class DltSink {
public:
    static DltSink& instance() {
        static DltSink sink;
        return sink;
    }

    void write(DltLogLevelType level, const std::string& text) {
        if (!registered_.load(std::memory_order_acquire) && !tryRegister())
            return;
        DltContextData data;
        if (dlt_user_log_write_start(&context_, &data, level) > 0) {
            dlt_user_log_write_string(&data, text.c_str());
            dlt_user_log_write_finish(&data);
        }
    }

private:
    DltSink() = default;
    ~DltSink() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (registered_.exchange(false)) {
            dlt_unregister_context(&context_);
            dlt_unregister_app();
        }
    }

    bool tryRegister() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (registered_.load())
            return true;
        const auto now = std::chrono::steady_clock::now();
        if (now < nextCheck_)
            return false;
        nextCheck_ = now + kRecheck;
        if (!daemonListening())
            return false;
        const char* app = std::getenv("OLVANE_DLT_APP");
        if (dlt_register_app(app && *app ? app : "OLVN", "olvane media indexer") < 0)
            return false;
        // Registered at verbose: which levels are wanted is decided here and
        // by OLVANE_LOG, not by the daemon's default context level.
        if (dlt_register_context_ll_ts(&context_, "CORE", "olvane indexer core", DLT_LOG_VERBOSE,
                                       DLT_TRACE_STATUS_OFF) < 0) {
            dlt_unregister_app();
            return false;
        }
        registered_.store(true, std::memory_order_release);
        return true;
    }

    std::mutex mutex_;  // guards registration
    DltContext context_{};
    std::atomic<bool> registered_{false};
    std::chrono::steady_clock::time_point nextCheck_{};
};

const char* levelName(DltLogLevelType level) {
    switch (level) {
        case DLT_LOG_FATAL:
            return "FATAL";
        case DLT_LOG_ERROR:
            return "ERROR";
        case DLT_LOG_WARN:
            return "WARN";
        case DLT_LOG_INFO:
            return "INFO";
        case DLT_LOG_DEBUG:
            return "DEBUG";
        case DLT_LOG_VERBOSE:
            return "VERBOSE";
        default:
            return "LOG";
    }
}

// The most detailed level mirrored to stderr, from OLVANE_LOG; 0 mirrors nothing.
int stderrThreshold() {
    static const int threshold = [] {
        const char* v = std::getenv("OLVANE_LOG");
        if (!v)
            return 0;
        std::string s(v);
        if (s == "error")
            return int(DLT_LOG_ERROR);
        if (s == "warning" || s == "warn")
            return int(DLT_LOG_WARN);
        if (s == "info")
            return int(DLT_LOG_INFO);
        if (s == "debug")
            return int(DLT_LOG_DEBUG);
        if (s == "verbose")
            return int(DLT_LOG_VERBOSE);
        return 0;
    }();
    return threshold;
}

std::string format(const char* fmt, va_list args) {
    char stackBuf[512];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(stackBuf, sizeof stackBuf, fmt, copy);
    va_end(copy);
    if (n < 0)
        return fmt;
    if (size_t(n) < sizeof stackBuf)
        return std::string(stackBuf, size_t(n));
    std::string out(size_t(n) + 1, '\0');
    std::vsnprintf(&out[0], out.size(), fmt, args);
    out.resize(size_t(n));
    return out;
}

}  // namespace

void vimplZQLog(unsigned char /*context*/, DltLogLevelType level, const char* function,
                int /*line*/, const char* /*file*/, const char* fmt, va_list args) {
    if (!fmt)
        return;
    if (!function)
        function = "";
    const std::string message = format(fmt, args);
    olvane::detail::dispatchLogLine(level, function, message);
    const int threshold = stderrThreshold();
    if (threshold > 0 && int(level) > 0 && int(level) <= threshold) {
        std::fprintf(stderr, "%s %s: %s\n", levelName(level), function, message.c_str());
    }
    DltSink::instance().write(level, std::string(function) + ": " + message);
}

void implZQLog(unsigned char context, DltLogLevelType level, const char* function, int line,
               const char* file, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vimplZQLog(context, level, function, line, file, fmt, args);
    va_end(args);
}
