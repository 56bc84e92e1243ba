#include "platform/log/ZQLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "platform/log/LogCapture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

namespace {

// Runs LogProbe with a private FIFO directory and returns its stderr. It must
// end at once and print nothing on stdout.
std::string runProbe(const std::string& env, std::vector<std::string> argv = {"t"},
                     bool staleFifo = false) {
    olvane::test::TempDir dir;
    if (staleFifo && ::mkfifo(dir.file("dlt").c_str(), 0600) != 0)
        ADD_FAILURE() << "mkfifo failed";
    argv.insert(argv.begin(), OLVANE_LOG_PROBE);
    olvane::test::ChildProcess probe(argv, {"DLT_PIPE_DIR=" + dir.path(), env});
    EXPECT_TRUE(probe.waitForFinished(5000) && probe.exitCode() == 0);
    EXPECT_EQ("", probe.readAllStandardOutput().toStdString());
    return probe.readAllStandardError().toStdString();
}

}  // namespace

// With no daemon, libdlt would print "FIFO ... cannot be opened" and stall its
// exit for about ten seconds, also when a dead daemon left its FIFO behind.
TEST(ZQLogTest, SilentAndPromptWithoutDaemon) {
    for (bool staleFifo : {false, true}) {
        SCOPED_TRACE(staleFifo);
        EXPECT_EQ("", runProbe("OLVANE_LOG", {"t", "20"}, staleFifo));
    }
}

TEST(ZQLogTest, MirrorsLevelAndMoreSevereToStderr) {
    const std::string all =
        "ERROR main: t error line\nWARN main: t warning line\nINFO main: t info line\n"
        "DEBUG main: t debug line\nVERBOSE main: t verbose line\n";
    const char* levels[] = {"chatty", "error", "warning", "info", "debug", "verbose"};
    size_t end = 0;  // "chatty" mirrors nothing; each next level adds a line
    for (const char* level : levels) {
        SCOPED_TRACE(level);
        EXPECT_EQ(all.substr(0, end), runProbe(std::string("OLVANE_LOG=") + level));
        end = all.find('\n', end) + 1;
    }
    EXPECT_EQ("ERROR int main(int, char**): p error line\n",
              runProbe("OLVANE_LOG=error", {"p", "0", "pretty"}));
}

TEST(ZQLogTest, FormatsLongMessagesWhole) {
    olvane::LogCapture cap;
    const std::string text(3000, 'x');
    ZQLOG_WARN("%d-%s", 42, text.c_str());
    EXPECT_EQ(1, cap.count("42-" + text));
}
