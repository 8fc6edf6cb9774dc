// The clock and the heap of the transport's tests.
#pragma once

#include <cstdint>

// Stops the time of day at now (microseconds) while an object of this class lives.
class FixedClock {
public:
    explicit FixedClock(int64_t start);
    ~FixedClock();
    int64_t now;
};

// How often operator new was called in this process. Memory from it is never zero by chance.
extern unsigned long allocations;
