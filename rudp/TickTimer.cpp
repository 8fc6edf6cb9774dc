#include "rudp/TickTimer.h"

#include <cstdint>

void CTickTimer::Start() {
    m_bStarted = true;
    GetRelativeTimeMsec(m_tvStart);
}

long CTickTimer::Elapsed() const {
    timeval now;
    GetRelativeTimeMsec(now);
    return Elapsed(now);
}

// In 32 bits, the microseconds would wrap after 36 minutes.
long CTickTimer::Elapsed(timeval const& now) const {
    const int64_t seconds = static_cast<int64_t>(now.tv_sec) - m_tvStart.tv_sec;
    const int64_t microseconds = static_cast<int64_t>(now.tv_usec) - m_tvStart.tv_usec;
    return static_cast<long>((seconds * 1000000 + microseconds) / 1000);
}

void CTickTimer::GetRelativeTimeMsec(timeval& now) {
    gettimeofday(&now, nullptr);
}
