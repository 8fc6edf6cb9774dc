#include "app/lifesigns.h"

#include <cstdlib>

#include "protocol/numbers.h"

namespace {

const long long SIGNS = 10;  // in the time that the manager waits

// Beside the peers, a turn waits for input and, without TQRD, between two connections.
const long long WAITS_MS = 31000;

// How long a healthy turn may take: every remote server may have to be connected, and one peer be
// found to have vanished. 0: there is no limit.
long long longest_turn_ms(const CTQRLimits& peers) {
    if (peers.connect_ms == 0 || peers.peer_ms == 0) {
        return 0;
    }
    return static_cast<long long>(peers.connect_ms) * CHANNEL_COUNT + peers.peer_ms + WAITS_MS;
}

}  // namespace

long long milliseconds_between(const timeval& from, const timeval& to) {
    return (static_cast<long long>(to.tv_sec) - from.tv_sec) * 1000 +
           (to.tv_usec - from.tv_usec) / 1000;
}

void CLifeSigns::Ready(const CTQRLimits& peers) {
    if (!m_manager.Open(getenv("NOTIFY_SOCKET"))) {
        return;
    }
    const long long limit_ms = watchdog_ms();
    const long long period_ms = limit_ms / SIGNS;
    const long long turn_ms = longest_turn_ms(peers);
    if (turn_ms != 0 && period_ms + turn_ms < limit_ms) {
        m_nPeriodMs = period_ms;
    } else if (limit_ms != 0) {
        m_manager.Send("WATCHDOG_USEC=0");
    }
    m_manager.Send("READY=1");
}

void CLifeSigns::GiveNow() {
    if (m_nPeriodMs != 0) {
        m_manager.Send("WATCHDOG=1");
    }
}

void CLifeSigns::Give(const timeval& now) {
    if (m_nPeriodMs == 0) {
        return;
    }
    const long long elapsed = milliseconds_between(m_given, now);
    if (elapsed < 0 || elapsed >= m_nPeriodMs) {
        m_given = now;
        m_manager.Send("WATCHDOG=1");
    }
}
