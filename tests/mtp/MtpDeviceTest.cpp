#include "mtp/MtpDevice.h"

#include <sys/syscall.h>

#include <future>

#include "facade/KestrowQTProxy.h"
#include "tests/support/Testing.h"

using kestrow::MtpDevice;

namespace {

// How often the thread has gone to sleep, or -1 while it is not asleep now
// (from /proc: its state and its voluntary context switches).
long sleeps(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/status");
    const std::string s(std::istreambuf_iterator<char>(in), {});
    const size_t at = s.find("\nvoluntary_ctxt_switches:");
    return s.find("State:\tS") == std::string::npos ? -1 : std::stol(s.substr(at + 25));
}

// A new connection clears an early announcement. A waiter sleeps on through
// another device's announcement and returns at its own, made through the
// facade; an announcement made before the wait ends it at once. A
// disconnection clears both flags.
TEST(MtpDeviceTest, FlagsAndWaitsOfOneHandle) {
    MtpDevice& registry = MtpDevice::instance();
    EXPECT_FALSE(registry.isDeviceConnected(101) || registry.waitDeviceReady(101));
    olvane::LogCapture log;
    registry.setDeviceReady(104);
    registry.setDeviceConnected(104);
    EXPECT_TRUE(registry.isDeviceConnected(104) && !registry.isDeviceReady(104));
    std::atomic<pid_t> tid{0};
    auto waiting = std::async(std::launch::async, [&] {
        tid = pid_t(syscall(SYS_gettid));
        return registry.waitDeviceReady(104);
    });
    long asleep = -1;
    ASSERT_TRUE(olvane::test::waitFor(
        [&] { return log.count("") == 1 && tid && (asleep = sleeps(tid)) >= 0; }));
    // Woken by the broadcast, the waiter either returns or goes back to sleep.
    registry.setDeviceReady(105);
    const auto returned = [&] {
        return waiting.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    };
    ASSERT_TRUE(olvane::test::waitFor([&] { return returned() || sleeps(tid) > asleep; }));
    EXPECT_FALSE(returned());
    KestrowQTProxy::instance().setDeviceReady(104);
    EXPECT_TRUE(waiting.get());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(registry.waitDeviceReady(104) &&
                std::chrono::steady_clock::now() - start < std::chrono::seconds(10));
    registry.disconnectDevice(104);
    EXPECT_FALSE(registry.isDeviceConnected(104) || registry.isDeviceReady(104));
}

TEST(MtpDeviceTest, SlowNobodyAnnouncesTheDevice) {
    MtpDevice::instance().setDeviceConnected(106);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(MtpDevice::instance().waitDeviceReady(106));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(25));
}

}  // namespace
