// How much a TCP connection has carried.
#pragma once

#include <cstdint>
#include <optional>

// Bytes since the connection was made; repetitions are not counted.
struct Carried {
    uint64_t sent = 0;  // by this end
    uint64_t received = 0;
};

// inode names the socket, as in /proc/net/tcp. None when the system does not tell.
std::optional<Carried> ReadCarried(unsigned long inode);
