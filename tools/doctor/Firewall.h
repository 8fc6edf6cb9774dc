// Whether a firewall of this host drops the bus.
#pragma once

#include <cstdint>

// What happens to this host's own datagrams to the group.
enum class Passage {
    Unknown,  // can't be tried
    Passes,
    NotSent,     // dropped on the way out
    NotReceived  // dropped on the way in
};

// Sends an empty read to the group at that port, and receives it, through the interface with that
// address (both in network byte order). It does not leave this host, and nothing answers it. Rules
// for certain senders can't be seen like this.
Passage TryPort(uint32_t group, uint32_t address, uint16_t port);
