// Limits to waiting for a TCP peer that does not answer.
#pragma once

// In milliseconds; 0 leaves it to the system, which waits for minutes or hours.
struct CTQRLimits {
    unsigned int connect_ms = 0;  // to make a connection
    unsigned int peer_ms = 0;     // to notice that a peer has vanished; at least 2000
};

// Makes connect() on the socket fail with EINPROGRESS after that time. It also limits how long
// sends wait for room, so undo it, with 0, as soon as the socket is connected. Returns 0 or -1.
int set_connect_limit(int sock, unsigned int ms);

// Lets the system detect that the peer has vanished while no data is in flight. CPeerWatch detects
// the other cases. Returns 0 or -1.
int set_keep_alive(int sock, unsigned int peer_ms);

// How often to call CPeerWatch::HasVanished, in milliseconds.
unsigned int peer_watch_period(unsigned int peer_ms);

// Detects that the peer of one connection has vanished while data was in flight, when keep-alive
// sends no probes. TCP_USER_TIMEOUT would also end the connection to a peer that answers but does
// not read.
class CPeerWatch {
public:
    // Examines the socket. True if the peer has left data or probes unanswered for half of the
    // limit. Call it once per period; more often is harmless. Together with the time until
    // keep-alive sends its first probe, that detects a vanished peer within the limit.
    bool HasVanished(int sock, unsigned int peer_ms);

private:
    long long m_answered = 0;  // when nothing was last unanswered, in monotonic milliseconds
};
