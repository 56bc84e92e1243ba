// Lines logged through the library reach a running dlt-daemon. The test runs
// a private daemon (its own FIFO directory, port and control socket), reads
// the lines back with dlt-receive, and stops both before it ends.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <QStandardPaths>

#include "tests/support/ChildProcess.h"
#include "tests/support/Testing.h"

using namespace olvane::test;

TEST(DltDaemonTest, EveryLineReachesTheDaemon) {
    for (const char* program : {"dlt-daemon", "dlt-receive", "stdbuf"})
        ASSERT_NE("", QStandardPaths::findExecutable(program))
            << program << " is missing: run scripts/setup";
    sockaddr_in addr{AF_INET, 0, {}, {}};  // any address: a TCP port that is free now
    socklen_t len = sizeof addr;
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&addr), len));
    ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len));
    ::close(fd);
    const std::string port = std::to_string(ntohs(addr.sin_port));
    TempDir dir;
    dir.write("dlt.conf", "PersistanceStoragePath = " + dir.path() +
                              "\nControlSocketPath = " + dir.file("ctrl.sock") + "\n");
    ChildProcess daemon({"dlt-daemon", "-c", dir.file("dlt.conf"), "-t", dir.path(), "-p", port});
    const auto ready = [&] {  // a FIFO opens for writing without blocking once it has a reader
        const int fifo = ::open(dir.file("dlt").c_str(), O_WRONLY | O_NONBLOCK);
        return (fifo >= 0 && ::close(fifo) == 0) || daemon.state() != QProcess::Running;
    };
    if (!waitFor(ready, 10000) || daemon.state() != QProcess::Running)
        GTEST_SKIP() << "dlt-daemon could not start here, so nothing to log to:\n"
                     << (daemon.readAllStandardOutput() + daemon.readAllStandardError()).data();

    // Line-buffered, so that its output can be read while it runs.
    ChildProcess receiver({"stdbuf", "-oL", "dlt-receive", "-a", "-p", port, "localhost"});
    std::string received;
    const auto receivedHas = [&](const std::string& text) {
        received += receiver.readAllStandardOutput().toStdString();
        return received.find(text) != std::string::npos;
    };
    ASSERT_TRUE(waitFor([&] { return receivedHas("New client connection"); }, 10000))
        << "dlt-receive did not connect:\n" + receiver.readAllStandardError().toStdString();
    ChildProcess probe({OLVANE_LOG_PROBE, "dlt", "100"},
                       {"DLT_PIPE_DIR=" + dir.path(), "OLVANE_DLT_APP=OLPT", "OLVANE_LOG"});
    ASSERT_TRUE(probe.waitForFinished(10000) && probe.exitCode() == 0);
    EXPECT_EQ("", probe.readAllStandardError().toStdString());

    Strings expected;
    for (const char* level : {"error", "warn", "info", "debug", "verbose"})
        expected.push_back("OLPT CORE log " + std::string(level) + " V 1 [main: dlt " +
                           (level[0] == 'w' ? "warning" : level) + " line]");
    for (int i = 0; i < 100; ++i)
        expected.push_back("OLPT CORE log info V 1 [main: dlt line " + std::to_string(i) + "]");
    EXPECT_TRUE(
        waitFor([&] { return std::all_of(expected.begin(), expected.end(), receivedHas); }, 20000))
        << "received:\n" + received;
}
