// Addresses as options and settings give them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/ConfigFile.h"

// An IPv4 address, as a dotted quad, and a TCP port.
struct Endpoint {
    std::string ip;
    uint16_t port = 0;

    std::string Text() const { return ip + ":" + std::to_string(port); }
    bool operator==(const Endpoint& other) const { return ip == other.ip && port == other.port; }
};

// Parses "IP:PORT". None if it is not that.
std::optional<Endpoint> ParseEndpoint(const std::string& text);

// The hosts whose addresses begin with the same bits.
struct Network {
    uint32_t address = 0;  // host byte order, as the mask
    uint32_t mask = 0;

    bool Contains(uint32_t host) const { return (host & mask) == address; }
    bool operator==(const Network& other) const {
        return address == other.address && mask == other.mask;
    }
};

// Parses "10.77.0.0/24", or the address of one host. None if it is neither, or if the address has
// bits that do not belong to the network.
std::optional<Network> ParseNetwork(const std::string& text);

// The next words of a setting as these. Refused with std::invalid_argument; an endpoint also for
// port 0.
Endpoint TakeEndpoint(ConfigWords& words);
Network TakeNetwork(ConfigWords& words);

// Who may do what at an address that a server listens on.
struct ListenAccess {
    std::vector<Network> from;  // empty: everybody may connect
    bool inputs_only = false;   // clients subscribe to inputs, and do and learn nothing else

    bool operator==(const ListenAccess& other) const {
        return from == other.from && inputs_only == other.inputs_only;
    }
};
