// The clock and the heap of the transport's tests.
#pragma once

#include <cstdint>

// The time of day in milliseconds; the system's while it is 0.
extern int64_t fixed_time;

// How often operator new was called. Memory from it is never zero by chance.
extern unsigned long allocations;
