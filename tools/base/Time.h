// Time for programs with a loop.
#pragma once

#include <chrono>
#include <cstdint>

// A moment for time limits, on a clock that is never set.
using TimePoint = std::chrono::steady_clock::time_point;

TimePoint Now();

// The moment that many seconds from now; TimePoint::max() for more than 30 years.
TimePoint After(double seconds);

// The moment that many seconds after another.
TimePoint Later(TimePoint time, double seconds);

// For poll(): the milliseconds until the deadline, rounded up; 0 if it has passed, -1 for
// TimePoint::max().
int MillisecondsUntil(TimePoint deadline);

// The time of day, in seconds since 1970.
double TimeOfDay();

// Seconds as a whole number of milliseconds, rounded.
int64_t WholeMilliseconds(double seconds);
