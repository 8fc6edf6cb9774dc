#include "tests/rudp/test_env.h"

#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

int64_t fixed_time = 0;
unsigned long allocations = 0;

extern "C" int gettimeofday(timeval* tv, void*) noexcept {
    timespec now = {static_cast<time_t>(fixed_time / 1000), fixed_time % 1000 * 1000000};
    if (fixed_time == 0) {
        clock_gettime(CLOCK_REALTIME, &now);
    }
    *tv = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}

void* operator new(size_t size) {
    ++allocations;
    return memset(malloc(size), 0xA5, size);
}

void operator delete(void* p) noexcept {
    free(p);
}

void operator delete(void* p, size_t) noexcept {
    free(p);
}
