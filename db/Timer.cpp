#include "db/Timer.h"

Timer::Timer() : end{0, 0} {
    gettimeofday(&start, nullptr);
}

Timer::Timer(const timeval& start_) : start(start_), end{0, 0} {}

long Timer::stop() {
    timeval now;
    gettimeofday(&now, nullptr);
    return stop(now);
}

long Timer::stop(const timeval& end_) {
    end = end_;
    return elapsedMs(start, end);
}

long Timer::elapsedMs(const timeval& s, const timeval& e) {
    return long(1000.0 * double(e.tv_sec - s.tv_sec) + double(e.tv_usec - s.tv_usec) / 1000.0 +
                0.5);
}
