#include "tqr/tqrlimits.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <ctime>

namespace {

long long monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int set_tcp_option(int sock, int option, int value) {
    return setsockopt(sock, IPPROTO_TCP, option, &value, sizeof value);
}

// A peer that does not read still answers window probes and retransmissions, so it is waited for
// only if the last segment sent has not been answered.
bool is_unanswered(const tcp_info& info) {
    return info.tcpi_probes > 0 ||
           (info.tcpi_unacked > 0 && info.tcpi_last_data_sent < info.tcpi_last_ack_recv);
}

}  // namespace

int set_connect_limit(int sock, unsigned int ms) {
    timeval limit = {};
    limit.tv_sec = static_cast<time_t>(ms / 1000);
    limit.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    return setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

// The first probe after a third of the limit, and up to three until five sixths of it.
int set_keep_alive(int sock, unsigned int peer_ms) {
    const int limit = static_cast<int>(peer_ms / 1000);
    const int idle = std::max(limit / 3, 1);
    const int interval = std::max(limit / 6, 1);
    const int probes = std::min(std::max((limit - idle) / interval, 1), 3);
    return set_tcp_option(sock, TCP_KEEPIDLE, idle) == 0 &&
                   set_tcp_option(sock, TCP_KEEPINTVL, interval) == 0 &&
                   set_tcp_option(sock, TCP_KEEPCNT, probes) == 0
               ? 0
               : -1;
}

unsigned int peer_watch_period(unsigned int peer_ms) {
    return peer_ms / 6;
}

bool CPeerWatch::HasVanished(int sock, unsigned int peer_ms) {
    tcp_info info = {};
    socklen_t size = sizeof info;
    const bool unanswered =
        getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && is_unanswered(info);
    const long long now = monotonic_ms();
    if (!unanswered || info.tcpi_last_ack_recv < now - m_answered) {
        m_answered = now;
    }
    return now - m_answered >= peer_ms / 2;
}
