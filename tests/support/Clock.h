// The time of day of a test program, for tests in which time moves only when they move it.
//
// Linking Clock.cpp in replaces gettimeofday() in the whole program; the fuzz targets have a world.
#pragma once

struct Clock {
    static void Advance(long seconds, long microseconds);
};
