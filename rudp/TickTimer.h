// A stopwatch in milliseconds.
#pragma once

#include <sys/time.h>

// Measures the time of day since its last start: negative if the clock was set back meanwhile. A
// plain value.
class CTickTimer {
public:
    // Starts immediately.
    CTickTimer() { Start(); }

    void Start();

    // Milliseconds from the start until now, or until the given time of day.
    long Elapsed() const;
    long Elapsed(timeval const& now) const;

    // Stores the time of day.
    static void GetRelativeTimeMsec(timeval& now);

private:
    timeval m_tvStart;
    bool m_bStarted;
};
