// The system's tables of sockets, group memberships and addresses, in this network namespace.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

// A row of /proc/net/tcp or /proc/net/udp. Addresses in network, ports in host byte order.
struct SocketRow {
    uint32_t local_ip = 0;
    uint32_t remote_ip = 0;
    uint16_t local_port = 0;
    uint16_t remote_port = 0;
    unsigned state = 0;  // as the system numbers them: TCP_ESTABLISHED and others
    unsigned long unsent = 0;
    unsigned long unread = 0;  // bytes that wait for the program
    unsigned long inode = 0;   // identifies the socket in /proc/PID/fd; 0: no program has it
    unsigned long drops = 0;   // UDP: datagrams lost for lack of room
};

struct Membership {
    std::string device;
    uint32_t group = 0;  // network byte order
};

struct InterfaceAddress {
    std::string device;
    uint32_t ip = 0;  // network byte order, 0: none
    bool is_on = true;
    bool has_carrier = true;  // it is on, and something is at the other end of its cable
};

// protocol is "tcp" or "udp". Empty if there is no such table.
std::vector<SocketRow> ReadSockets(const std::string& protocol);
std::vector<Membership> ReadMemberships();

// Every interface, once for each address.
std::vector<InterfaceAddress> ReadInterfaces();

// Whether a program can bind the UDP port on all addresses as the daemon does, which shares it only
// with programs that do the same. 0, or why not.
int TryToBind(uint16_t port);

// "10.0.0.9:94", ip in network byte order.
std::string EndpointText(uint32_t ip, uint16_t port);
std::string IpText(uint32_t ip);
sockaddr_in Endpoint(uint32_t ip, uint16_t port);
