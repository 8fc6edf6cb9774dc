// The network interface of the bus.
#pragma once

#include <cstdint>
#include <string>

// The current state of an interface. Default: there is none.
struct Interface {
    std::string name;
    unsigned int index = 0;  // 0: there is no such interface
    uint32_t address = 0;    // its first IPv4 address, network byte order; 0: none
    bool up = false;         // switched on and connected

    bool IsUsable() const { return up && address != 0; }
};

// Finds an interface by its name or one of its addresses, a dotted quad. With an empty text, the
// one to which the system routes the group (host byte order). Throws BusError if the system can't
// be asked, for instance for want of descriptors.
Interface FindInterface(const std::string& text, uint32_t group);

// Where the system sends datagrams to the group.
struct Route {
    int error = 0;         // why it can't
    uint32_t address = 0;  // the address of this host that they come from, network byte order
};

// For the group in host byte order. Throws BusError for want of descriptors.
Route FindRoute(uint32_t group);

// "10.0.0.1" for an address in host byte order.
std::string HostText(uint32_t address);
