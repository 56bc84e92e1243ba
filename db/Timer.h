#pragma once

#include <sys/time.h>

// Wall-clock stopwatch for the stages' timer lines.
class Timer {
public:
    Timer();                               // starts now
    explicit Timer(const timeval& start);  // starts at a given time

    // Sets the end time and returns the elapsed milliseconds, rounded half up.
    long stop();
    long stop(const timeval& end);

    static long elapsedMs(const timeval& start, const timeval& end);

    timeval start;
    timeval end;
};
