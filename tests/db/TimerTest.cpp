#include "db/Timer.h"

#include <gtest/gtest.h>

TEST(TimerTest, ElapsedMillisecondsRoundHalfUp) {
    const struct {
        timeval start, end;
        long ms;
    } cases[] = {
        {{10, 0}, {10, 1499}, 1},      {{10, 0}, {10, 1500}, 2},
        {{10, 0}, {10, 499}, 0},       {{10, 999600}, {11, 1099}, 1},  // 1499 µs across a second
        {{10, 999600}, {11, 1100}, 2}, {{10, 500000}, {13, 0}, 2500},
    };
    for (const auto& c : cases) {
        Timer timer(c.start);
        EXPECT_EQ(c.ms, timer.stop(c.end)) << c.end.tv_sec << "." << c.end.tv_usec;
        EXPECT_EQ(c.end.tv_sec, timer.end.tv_sec);
        EXPECT_EQ(c.end.tv_usec, timer.end.tv_usec);
    }
    Timer now;
    EXPECT_GE(now.stop(), 0);
    EXPECT_NE(0, now.end.tv_sec);
}
