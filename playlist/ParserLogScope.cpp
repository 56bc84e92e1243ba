#include "playlist/ParserLogScope.h"

#include <glib.h>

#include <atomic>
#include <mutex>

#include "platform/log/ZQLog.h"

namespace kestrow {

namespace {

thread_local int parsing = 0;
std::atomic<GLogFunc> previousHandler(nullptr);

void onGLibMessage(const gchar* domain, GLogLevelFlags level, const gchar* message,
                   gpointer /*data*/) {
    if (parsing == 0) {
        GLogFunc previous = previousHandler.load();
        (previous ? previous : g_log_default_handler)(domain, level, message, nullptr);
        return;
    }
    const DltLogLevelType dlt =
        level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING) ? DLT_LOG_WARN
        : level & (G_LOG_LEVEL_MESSAGE | G_LOG_LEVEL_INFO)                       ? DLT_LOG_INFO
                                                                                 : DLT_LOG_DEBUG;
    ZQLOG(dlt, "%s: %s", domain ? domain : "", message ? message : "");
}

}  // namespace

ParserLogScope::ParserLogScope() {
    static std::once_flag installed;
    std::call_once(installed,
                   [] { previousHandler = g_log_set_default_handler(onGLibMessage, nullptr); });
    ++parsing;
}

ParserLogScope::~ParserLogScope() {
    --parsing;
}

}  // namespace kestrow
