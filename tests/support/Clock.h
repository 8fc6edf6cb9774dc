// A time of day that moves only when the test moves it.
//
// Linking Clock.cpp replaces gettimeofday() in the whole program. The fuzz targets have a simulated
// world instead.
#pragma once

struct Clock {
    static void Advance(long seconds, long microseconds);
};
