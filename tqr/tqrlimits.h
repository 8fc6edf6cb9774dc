// Limits to waiting for a TCP peer that does not answer.
#pragma once

// In milliseconds; 0 leaves it to the system, which waits for minutes and hours.
struct CTQRLimits {
    unsigned int connect_ms = 0;  // for a connection to be made
    unsigned int peer_ms = 0;     // for a peer that has vanished to be noticed; 2000 at least
};

// Makes connect() on the socket fail with EINPROGRESS after so many milliseconds. Sends wait as
// long for room, so this is to be taken back, with 0, as soon as the socket is connected. 0 or -1.
int set_connect_limit(int sock, unsigned int ms);

// Lets the system find out, while nothing is under way, that the peer has vanished. What it can't
// find out so is left to CPeerWatch. 0 or -1.
int set_keep_alive(int sock, unsigned int peer_ms);

// How often a CPeerWatch is to look, in milliseconds.
unsigned int peer_watch_period(unsigned int peer_ms);

// Notices that the peer of one connection has vanished while data was under way to it: keep-alive
// sends no probes then. TCP_USER_TIMEOUT is no help, for it ends the connection to a peer that
// answers, but does not read, as well.
class CPeerWatch {
public:
    // Looks at the socket. True when its peer has answered nothing for half of the limit, though it
    // was sent something that it must answer. To be called once in a period, more often is
    // harmless; with that and the time until keep-alive sends its first probe, a peer that vanished
    // is noticed within the limit.
    bool HasVanished(int sock, unsigned int peer_ms);

private:
    long long m_answered = 0;  // when the peer last owed nothing, in monotonic milliseconds
};
