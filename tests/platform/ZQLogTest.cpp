// The logging library: the stderr mirror and its levels, a prompt and silent
// exit with no daemon, long messages, and sinks removed while others log.
#include "platform/log/ZQLog.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/Testing.h"

namespace {

// Runs LogProbe with a private FIFO directory (with a FIFO a dead daemon left
// behind, if `staleFifo`) and returns its stderr. It must end at once and
// print nothing on stdout.
std::string runProbe(const std::string& env, std::vector<std::string> argv = {"t"},
                     bool staleFifo = false) {
    olvane::test::TempDir dir;
    EXPECT_TRUE(!staleFifo || ::mkfifo(dir.file("dlt").c_str(), 0600) == 0);
    argv.insert(argv.begin(), OLVANE_LOG_PROBE);
    olvane::test::ChildProcess probe(argv, {"DLT_PIPE_DIR=" + dir.path(), env});
    EXPECT_TRUE(probe.waitForFinished(5000) && probe.exitCode() == 0);
    EXPECT_EQ("", probe.readAllStandardOutput().toStdString());
    return probe.readAllStandardError().toStdString();
}

// Each level mirrors itself and what is more severe; "chatty" mirrors nothing.
// With no daemon, libdlt would print "FIFO ... cannot be opened" and stall its
// exit for about ten seconds, also with a stale FIFO.
TEST(ZQLogTest, MirrorsLevelsIsSilentWithoutDaemonAndLetsSinksGoWhileOthersLog) {
    const std::string all =
        "ERROR main: t error line\nWARN main: t warning line\nINFO main: t info line\n"
        "DEBUG main: t debug line\nVERBOSE main: t verbose line\n";
    size_t end = 0;
    for (const char* level : {"chatty", "error", "warning", "info", "debug", "verbose"}) {
        EXPECT_EQ(all.substr(0, end), runProbe(std::string("OLVANE_LOG=") + level)) << level;
        end = all.find('\n', end) + 1;
    }
    EXPECT_EQ("ERROR int main(int, char**): p error line\n",
              runProbe("OLVANE_LOG=error", {"p", "0", "pretty"}));
    for (bool staleFifo : {false, true})
        EXPECT_EQ("", runProbe("OLVANE_LOG", {"t", "20"}, staleFifo)) << staleFifo;

    // A host removes its sink while other threads log, then destroys it (a
    // capture removes itself as it goes): no thread may still be inside it
    // (the sanitizer sees a call into a dead sink).
    std::atomic<bool> done{false};
    auto logger = [&] {
        while (!done)
            ZQLOG_VERBOSE("busy");
    };
    std::thread a(logger), b(logger);
    for (int round = 0; round < 200; ++round) {
        auto sink = std::make_unique<olvane::LogCapture>();
        while (sink->count("busy") == 0)
            std::this_thread::yield();
    }
    done = true;
    a.join();
    b.join();

    olvane::LogCapture cap;  // a long message is kept whole
    const std::string text(3000, 'x');
    ZQLOG_WARN("%d-%s", 42, text.c_str());
    EXPECT_EQ(1, cap.count("42-" + text));
}

}  // namespace
