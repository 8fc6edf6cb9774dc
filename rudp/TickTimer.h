// A stopwatch in milliseconds.
#pragma once

#include <sys/time.h>

// Measures from its last start by the time of day: a clock set back meanwhile gives a negative
// time. A plain value.
class CTickTimer {
public:
    // Starts at once.
    CTickTimer() { Start(); }

    void Start();

    // Milliseconds from the start to this moment, or to the given time of day.
    long Elapsed() const;
    long Elapsed(timeval const& now) const;

    // Stores the time of day.
    static void GetRelativeTimeMsec(timeval& now);

private:
    timeval m_tvStart;
    bool m_bStarted;
};
