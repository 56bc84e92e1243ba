#include "platform/log/ZQLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "framework/BaseServer.h"
#include "framework/Block.h"
#include "platform/log/LogCapture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"

using olvane::LogCapture;
using olvane::test::ChildProcess;
using olvane::test::readFile;
using olvane::test::TempDir;

namespace {

struct ProbeRun {
    std::string out, err;
    bool exited = false;
};

// Runs LogProbe with `env`; the probe must end well within `timeoutMs`.
ProbeRun runProbe(const TempDir& dir, const std::vector<std::string>& env,
                  const std::vector<std::string>& args = {"t"}, int timeoutMs = 5000) {
    std::vector<std::string> argv{OLVANE_LOG_PROBE};
    argv.insert(argv.end(), args.begin(), args.end());
    ProbeRun run;
    {
        ChildProcess probe(argv, env, dir.file("out"), dir.file("err"));
        run.exited = probe.waitExit(timeoutMs) && probe.exitedWith(0);
    }
    run.out = readFile(dir.file("out"));
    run.err = readFile(dir.file("err"));
    return run;
}

class Probe : public kestrow::BaseServer<kestrow::Block<void>> {
public:
    Probe() : BaseServer("Probe") {}
    void runLoop() override {}
};

void shortName() {
    ZQLOG_DEBUG("from %s", "shortName");
}

}  // namespace

// With no daemon, libdlt would print "FIFO ... cannot be opened" and stall its
// exit handler for about ten seconds; the probe must stay silent and end at once,
// whether the FIFO is missing or left behind by a daemon that died.
TEST(ZQLogTest, SilentAndPromptWithoutDaemon) {
    TempDir dir;
    const std::string pipes = dir.mkdir("pipes");
    for (int staleFifo = 0; staleFifo < 2; ++staleFifo) {
        if (staleFifo) {
            ASSERT_EQ(0, ::mkfifo((pipes + "/dlt").c_str(), 0600));
        }
        ProbeRun run = runProbe(dir, {"DLT_PIPE_DIR=" + pipes, "OLVANE_LOG"}, {"t", "20"});
        EXPECT_TRUE(run.exited) << "stale FIFO: " << staleFifo;
        EXPECT_EQ("", run.err) << "stale FIFO: " << staleFifo;
        EXPECT_EQ("", run.out);
    }
}

TEST(ZQLogTest, MirrorsLevelAndMoreSevereToStderr) {
    TempDir dir;
    const std::string pipes = dir.mkdir("pipes");
    const std::string all =
        "ERROR main: t error line\n"
        "WARN main: t warning line\n"
        "INFO main: t info line\n"
        "DEBUG main: t debug line\n"
        "VERBOSE main: t verbose line\n";
    const struct {
        const char* value;
        size_t lines;
    } cases[] = {{"error", 1}, {"warning", 2}, {"info", 3},
                 {"debug", 4}, {"verbose", 5}, {"chatty", 0}};
    for (const auto& c : cases) {
        ProbeRun run =
            runProbe(dir, {"DLT_PIPE_DIR=" + pipes, std::string("OLVANE_LOG=") + c.value});
        ASSERT_TRUE(run.exited) << c.value;
        size_t end = 0;
        for (size_t i = 0; i < c.lines; ++i)
            end = all.find('\n', end) + 1;
        EXPECT_EQ(all.substr(0, end), run.err) << c.value;
    }
    ProbeRun pretty =
        runProbe(dir, {"DLT_PIPE_DIR=" + pipes, "OLVANE_LOG=error"}, {"p", "0", "pretty"});
    EXPECT_EQ("ERROR int main(int, char**): p error line\n", pretty.err);
}

TEST(ZQLogTest, CaptureSeesFormattedLinesAndFunctionTexts) {
    LogCapture cap;
    const std::string longText(3000, 'x');
    ZQLOG_WARN("%d-%s-%s", 42, "a", longText.c_str());
    shortName();
    zqPrettyFunction = 1;
    shortName();
    zqPrettyFunction = 0;

    const std::vector<olvane::LogLine> lines = cap.lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(DLT_LOG_WARN, lines[0].level);
    EXPECT_EQ("42-a-" + longText, lines[0].message);
    EXPECT_EQ(DLT_LOG_DEBUG, lines[1].level);
    EXPECT_EQ("shortName", lines[1].function);
    EXPECT_EQ("from shortName", lines[1].message);
    EXPECT_EQ("void {anonymous}::shortName()", lines[2].function);

    {
        LogCapture inner;  // replaces `cap` while it lives
        ZQLOG_INFO("inner");
        EXPECT_EQ(1, inner.count("inner"));
    }
    ZQLOG_INFO("after");
    EXPECT_EQ(0, cap.count("inner"));
    EXPECT_EQ(0, cap.count("after"));  // the inner capture uninstalled itself
}

// A stage's lines carry "<stage name>::" before the function text.
TEST(ZQLogTest, StageWrapperPrefixesTheStageName) {
    LogCapture cap;
    Probe probe;
    probe.start();
    probe.pause();
    zqPrettyFunction = 1;
    probe.start();
    zqPrettyFunction = 0;
    const std::vector<olvane::LogLine> lines = cap.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("Probe::start", lines[0].function);
    EXPECT_EQ("Probe is now paused play it again", lines[0].message);
    EXPECT_EQ(DLT_LOG_INFO, lines[0].level);
    EXPECT_EQ(0u, lines[1].function.find("Probe::void kestrow::BaseServer<T>::start()"))
        << lines[1].function;
}
