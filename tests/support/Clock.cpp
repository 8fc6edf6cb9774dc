#include "tests/support/Clock.h"

#include <sys/time.h>

namespace {

timeval now = {1000, 0};

}  // namespace

void Clock::Advance(long seconds, long microseconds) {
    const long sum = static_cast<long>(now.tv_usec) + microseconds;
    now.tv_sec += seconds + sum / 1000000;
    now.tv_usec = sum % 1000000;
}

// The system's names of the parameters are reserved.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept {
    *time = now;
    return 0;
}
