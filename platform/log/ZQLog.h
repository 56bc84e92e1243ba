#pragma once
// Logging of the head unit's platform: every line goes to the DLT daemon when
// one runs, to stderr when OLVANE_LOG asks for it, and to every registered
// LogSink (platform/log/LogSink.h). All functions are thread-safe.

#include <dlt/dlt_types.h>

#include <cstdarg>

// Non-zero: call sites pass the full signature of the calling function;
// zero (the default): its short name.
extern unsigned char zqPrettyFunction;

void implZQLog(unsigned char context, DltLogLevelType level, const char* function, int line,
               const char* file, const char* format, ...) __attribute__((format(printf, 6, 7)));

void vimplZQLog(unsigned char context, DltLogLevelType level, const char* function, int line,
                const char* file, const char* format, va_list args)
    __attribute__((format(printf, 6, 0)));

// Inside a stage, the unqualified name finds the stage's own wrapper, which
// puts the stage name in front of the function text.
#define ZQLOG(level, ...)                                                                \
    implZQLog(0, level, zqPrettyFunction ? __PRETTY_FUNCTION__ : __func__, __LINE__, "", \
              __VA_ARGS__)

#define ZQLOG_ERROR(...) ZQLOG(DLT_LOG_ERROR, __VA_ARGS__)
#define ZQLOG_WARN(...) ZQLOG(DLT_LOG_WARN, __VA_ARGS__)
#define ZQLOG_INFO(...) ZQLOG(DLT_LOG_INFO, __VA_ARGS__)
#define ZQLOG_DEBUG(...) ZQLOG(DLT_LOG_DEBUG, __VA_ARGS__)
#define ZQLOG_VERBOSE(...) ZQLOG(DLT_LOG_VERBOSE, __VA_ARGS__)
