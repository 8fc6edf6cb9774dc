#include "tools/doctor/Firewall.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tools/base/Descriptor.h"
#include "tools/base/Time.h"
#include "tools/doctor/NetworkTables.h"

namespace {

const double LIMIT = 0.1;  // seconds; what comes back comes at once

// A header, and a message without items. The port that the system chooses makes it known again.
const char EMPTY_READ[] = "\3\0\2\7\0\0\0\1\0\0\0\0\0\0\0\0READ\0";

Descriptor OpenSender(uint32_t address) {
    Descriptor sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const in_addr interface = {address};
    const int hops = 0;  // looped back, but not put on the network
    const sockaddr_in own = Endpoint(address, 0);
    if (setsockopt(sock.Get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) != 0 ||
        setsockopt(sock.Get(), IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops) != 0 ||
        bind(sock.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        sock.Close();
    }
    return sock;
}

Descriptor OpenReceiver(uint32_t group, uint32_t address, uint16_t port) {
    Descriptor sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    const int off = 0;
    const ip_mreq membership = {{group}, {address}};
    const sockaddr_in place = Endpoint(group, port);
    setsockopt(sock.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(sock.Get(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    if (bind(sock.Get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0 ||
        setsockopt(sock.Get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) !=
            0) {
        sock.Close();
    }
    return sock;
}

// Whether a datagram from there arrives in time.
bool Receives(const Descriptor& receiver, const sockaddr_in& sender) {
    const TimePoint end = After(LIMIT);
    pollfd ready = {receiver.Get(), POLLIN, 0};
    while (poll(&ready, 1, MillisecondsUntil(end)) > 0) {
        sockaddr_in from = {};
        socklen_t size = sizeof from;
        char data[sizeof EMPTY_READ];
        recvfrom(receiver.Get(), data, sizeof data, 0, reinterpret_cast<sockaddr*>(&from), &size);
        if (from.sin_addr.s_addr == sender.sin_addr.s_addr && from.sin_port == sender.sin_port) {
            return true;
        }
    }
    return false;
}

}  // namespace

Passage TryPort(uint32_t group, uint32_t address, uint16_t port) {
    const Descriptor receiver = OpenReceiver(group, address, port);
    const Descriptor sender = OpenSender(address);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    if (!receiver.IsOpen() || !sender.IsOpen() ||
        getsockname(sender.Get(), reinterpret_cast<sockaddr*>(&own), &size) != 0) {
        return Passage::Unknown;
    }
    const sockaddr_in place = Endpoint(group, port);
    if (sendto(sender.Get(), EMPTY_READ, sizeof EMPTY_READ, 0,
               reinterpret_cast<const sockaddr*>(&place), sizeof place) < 0) {
        return errno == EPERM ? Passage::NotSent : Passage::Unknown;  // so a filter refuses
    }
    return Receives(receiver, own) ? Passage::Passes : Passage::NotReceived;
}
