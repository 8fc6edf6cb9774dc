// How much a TCP connection has carried.
#pragma once

#include <cstdint>
#include <optional>

// The bytes that this end has sent since the connection was made, not counting repetitions; inode
// names the socket, as in /proc/net/tcp. None when the system does not tell.
std::optional<uint64_t> SentBytes(unsigned long inode);
