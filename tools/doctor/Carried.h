// How much data a TCP connection has carried.
#pragma once

#include <cstdint>
#include <optional>

// Bytes since the connection was made, without retransmissions.
struct Carried {
    uint64_t sent = 0;  // by this end
    uint64_t received = 0;
};

// inode identifies the socket, as in /proc/net/tcp. None if the system does not say.
std::optional<Carried> ReadCarried(unsigned long inode);
