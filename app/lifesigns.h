// Signs of life for the service manager.
#pragma once

#include <sys/time.h>

#include "net/NotifySocket.h"
#include "tqr/tqrlimits.h"

// Without NOTIFY_SOCKET it makes no system call at all.
class CLifeSigns {
public:
    // Tells that the daemon is ready, and finds out whether its loop is to be watched. It is not,
    // and the manager is told so, if a healthy turn may take longer than the manager waits: without
    // limits for peers, or with long ones, it may.
    void Ready(const CTQRLimits& peers);

    // Call it between turns, with the time of day. Gives a sign, ten in the time that the manager
    // waits; the clock may be set meanwhile.
    void Give(const timeval& now);

    // Gives one whenever the last was, in a loop that waits for seconds anyway.
    void GiveNow();

private:
    CNotifySocket m_manager;
    long long m_nPeriodMs = 0;  // 0: nobody waits for signs
    timeval m_given = {};       // time of the last one
};

// From one time to the other, negative if that is earlier.
long long milliseconds_between(const timeval& from, const timeval& to);
