// Lines logged through the library reach a running dlt-daemon. The test runs
// a private daemon (its own FIFO directory, port and control socket), reads
// the lines back with dlt-receive, and stops both before it ends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "tests/support/ChildProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/Wait.h"

using olvane::test::ChildProcess;
using olvane::test::readFile;
using olvane::test::TempDir;
using olvane::test::waitFor;

namespace {

std::string findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(std::string(path ? path : "") + ":/usr/sbin:/usr/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = dir + "/" + name;
        if (!dir.empty() && ::access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return "";
}

// A TCP port that was free a moment ago.
int freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    int port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    ::close(fd);
    return port;
}

bool fifoHasReader(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISFIFO(st.st_mode))
        return false;
    int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

}  // namespace

TEST(DltDaemonTest, EveryLineReachesTheDaemon) {
    const std::string daemonPath = findProgram("dlt-daemon");
    const std::string receivePath = findProgram("dlt-receive");
    const std::string stdbufPath = findProgram("stdbuf");
    ASSERT_FALSE(daemonPath.empty() || receivePath.empty() || stdbufPath.empty())
        << "dlt-daemon, dlt-receive or stdbuf is missing: run scripts/setup";
    TempDir dir;
    const int port = freePort();
    ASSERT_NE(0, port);
    dir.write("dlt.conf",
              "ECUId = OLVT\n"
              "SendContextRegistration = 0\n"
              "LoggingMode = 0\n"
              "LoggingLevel = 4\n"
              "SharedMemorySize = 100000\n"
              "RingbufferMinSize = 500000\n"
              "RingbufferMaxSize = 10000000\n"
              "RingbufferStepSize = 500000\n"
              "PersistanceStoragePath = " +
                  dir.path() + "\nControlSocketPath = " + dir.file("ctrl.sock") + "\n");

    ChildProcess daemon(
        {daemonPath, "-c", dir.file("dlt.conf"), "-t", dir.path(), "-p", std::to_string(port)}, {},
        dir.file("daemon.out"), dir.file("daemon.err"));
    if (!waitFor([&] { return fifoHasReader(dir.file("dlt")) || !daemon.running(); }, 10000) ||
        !daemon.running()) {
        GTEST_SKIP() << "dlt-daemon could not start here, so nothing to log to. Its output:\n"
                     << readFile(dir.file("daemon.out")) << readFile(dir.file("daemon.err"));
    }

    // Line-buffered, so that its output can be read while it runs.
    ChildProcess receiver(
        {stdbufPath, "-oL", receivePath, "-a", "-p", std::to_string(port), "localhost"}, {},
        dir.file("receive.out"), dir.file("receive.err"));
    ASSERT_TRUE(waitFor(
        [&] {
            return readFile(dir.file("receive.out")).find("New client connection") !=
                   std::string::npos;
        },
        10000))
        << "dlt-receive did not connect:\n"
        << readFile(dir.file("receive.err"));

    const int extra = 100;
    {
        ChildProcess probe({OLVANE_LOG_PROBE, "dlt", std::to_string(extra)},
                           {"DLT_PIPE_DIR=" + dir.path(), "OLVANE_DLT_APP=OLPT", "OLVANE_LOG"},
                           dir.file("probe.out"), dir.file("probe.err"));
        ASSERT_TRUE(probe.waitExit(10000));
        EXPECT_TRUE(probe.exitedWith(0));
    }
    EXPECT_EQ("", readFile(dir.file("probe.err")));

    std::vector<std::string> expected{
        "CORE log error V 1 [main: dlt error line]", "CORE log warn V 1 [main: dlt warning line]",
        "CORE log info V 1 [main: dlt info line]", "CORE log debug V 1 [main: dlt debug line]",
        "CORE log verbose V 1 [main: dlt verbose line]"};
    for (int i = 0; i < extra; ++i)
        expected.push_back("CORE log info V 1 [main: dlt line " + std::to_string(i) + "]");
    auto missing = [&] {
        const std::string received = readFile(dir.file("receive.out"));
        std::vector<std::string> out;
        for (const std::string& line : expected)
            if (received.find("OLPT " + line) == std::string::npos)
                out.push_back(line);
        return out;
    };
    waitFor([&] { return missing().empty(); }, 20000);
    const std::vector<std::string> lost = missing();
    EXPECT_TRUE(lost.empty()) << lost.size() << " lines did not arrive, first: " << lost[0]
                              << "\nreceived:\n"
                              << readFile(dir.file("receive.out"));
}
