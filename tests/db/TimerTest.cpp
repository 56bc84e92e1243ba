#include "db/Timer.h"

#include <gtest/gtest.h>

TEST(TimerTest, ElapsedMillisecondsRoundHalfUp) {
    const struct {
        timeval start, end;
        long ms;
    } cases[] = {{{10, 0}, {10, 1499}, 1},
                 {{10, 0}, {10, 1500}, 2},
                 {{10, 999600}, {11, 1099}, 1},
                 {{10, 999600}, {11, 1100}, 2}};
    for (const auto& c : cases) {
        Timer timer(c.start);
        EXPECT_EQ(c.ms, timer.stop(c.end)) << c.end.tv_sec << "." << c.end.tv_usec;
    }
}
