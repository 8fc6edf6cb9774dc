#include "tests/rudp/test_env.h"

#include <sys/time.h>
#include <time.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

FixedClock* fixed = nullptr;

}  // namespace

FixedClock::FixedClock(int64_t start) : now(start) {
    fixed = this;
}

FixedClock::~FixedClock() {
    fixed = nullptr;
}

extern "C" int gettimeofday(timeval* tv, void*) noexcept {
    if (fixed != nullptr) {
        *tv = {static_cast<time_t>(fixed->now / 1000000),
               static_cast<suseconds_t>(fixed->now % 1000000)};
        return 0;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    *tv = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}

unsigned long allocations = 0;

void* operator new(size_t size) {
    ++allocations;
    void* const p = malloc(size);
    if (p == nullptr) {
        abort();
    }
    return memset(p, 0xA5, size);
}

void operator delete(void* p) noexcept {
    free(p);
}

void operator delete(void* p, size_t) noexcept {
    free(p);
}
