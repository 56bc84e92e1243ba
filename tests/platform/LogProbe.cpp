// A tiny program linked with libolvane-log only, run by the logging tests.
// Usage: LogProbe TAG [EXTRA [pretty]]
// Logs "TAG error line", "TAG warning line", "TAG info line", "TAG debug line"
// and "TAG verbose line" at their levels, then EXTRA info lines "TAG line <i>",
// and exits 0. With a third argument, zqPrettyFunction is set first.
#include <cstdlib>

#include "platform/log/ZQLog.h"

int main(int argc, char** argv) {
    const char* tag = argc > 1 ? argv[1] : "t";
    zqPrettyFunction = argc > 3;
    ZQLOG_ERROR("%s error line", tag);
    ZQLOG_WARN("%s warning line", tag);
    ZQLOG_INFO("%s info line", tag);
    ZQLOG_DEBUG("%s debug line", tag);
    ZQLOG_VERBOSE("%s verbose line", tag);
    for (int i = 0; i < (argc > 2 ? std::atoi(argv[2]) : 0); ++i)
        ZQLOG_INFO("%s line %d", tag, i);
    return 0;
}
