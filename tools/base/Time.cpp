#include "tools/base/Time.h"

#include <algorithm>
#include <climits>
#include <cmath>

using std::chrono::steady_clock;

TimePoint Now() {
    return steady_clock::now();
}

TimePoint After(double seconds) {
    return Later(Now(), seconds);
}

TimePoint Later(TimePoint time, double seconds) {
    const double limit = 1e9;
    if (!(seconds < limit)) {
        return TimePoint::max();
    }
    return time + std::chrono::duration_cast<steady_clock::duration>(
                      std::chrono::duration<double>(seconds));
}

int MillisecondsUntil(TimePoint deadline) {
    if (deadline == TimePoint::max()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

double TimeOfDay() {
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    return static_cast<double>(now.count()) / 1e6;
}

int64_t WholeMilliseconds(double seconds) {
    return static_cast<int64_t>(std::llround(seconds * 1000));
}
