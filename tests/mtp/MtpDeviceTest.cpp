#include "mtp/MtpDevice.h"

#include <sys/syscall.h>

#include <future>

#include "facade/KestrowQTProxy.h"
#include "tests/support/Testing.h"

using kestrow::MtpDevice;
using Clock = std::chrono::steady_clock;

namespace {

// How often the thread has gone to sleep, or -1 while it is not asleep now
// (from /proc: its state and its voluntary context switches).
long sleeps(pid_t tid) {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    bool asleep = false;
    long switches = -1;
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("State:", 0) == 0)
            asleep = line.find('S') != std::string::npos;
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
            switches = std::stol(line.substr(line.find(':') + 1));
    }
    return asleep ? switches : -1;
}

// A new connection clears an early announcement; one made through the facade
// before the wait ends it at once.
TEST(MtpDeviceTest, FlagsOfOneHandle) {
    MtpDevice& registry = MtpDevice::instance();
    EXPECT_FALSE(registry.isDeviceConnected(101) || registry.waitDeviceReady(101));
    registry.setDeviceReady(102);
    registry.setDeviceConnected(102);
    EXPECT_EQ(std::make_pair(true, false),
              std::make_pair(registry.isDeviceConnected(102), registry.isDeviceReady(102)));
    registry.setDeviceReady(102);
    registry.disconnectDevice(102);
    EXPECT_EQ(std::make_pair(false, false),
              std::make_pair(registry.isDeviceConnected(102), registry.isDeviceReady(102)));

    registry.setDeviceConnected(103);
    KestrowQTProxy::instance().setDeviceReady(103);
    const Clock::time_point start = Clock::now();
    EXPECT_TRUE(registry.waitDeviceReady(103));
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

TEST(MtpDeviceTest, AnnouncementForAnotherDeviceDoesNotEndTheWait) {
    olvane::LogCapture log;
    MtpDevice::instance().setDeviceConnected(104);
    std::atomic<pid_t> tid{0};
    auto waiting = std::async(std::launch::async, [&] {
        tid = pid_t(syscall(SYS_gettid));
        return MtpDevice::instance().waitDeviceReady(104);
    });
    long asleep = -1;
    ASSERT_TRUE(olvane::test::waitFor(
        [&] { return log.count("") == 1 && tid && (asleep = sleeps(tid)) >= 0; }));

    // Woken by the broadcast, the waiter either returns or goes back to sleep.
    MtpDevice::instance().setDeviceReady(105);
    const auto returned = [&] {
        return waiting.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    ASSERT_TRUE(olvane::test::waitFor([&] { return returned() || sleeps(tid) > asleep; }));
    EXPECT_FALSE(returned());
    MtpDevice::instance().setDeviceReady(104);
    EXPECT_TRUE(waiting.get());
}

TEST(MtpDeviceTest, SlowNobodyAnnouncesTheDevice) {
    MtpDevice::instance().setDeviceConnected(106);
    const Clock::time_point start = Clock::now();
    EXPECT_FALSE(MtpDevice::instance().waitDeviceReady(106));
    EXPECT_GE(Clock::now() - start, std::chrono::seconds(25));
}

}  // namespace
