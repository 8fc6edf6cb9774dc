#include "tools/bus/Interface.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "tools/base/Descriptor.h"
#include "tools/base/ErrorText.h"
#include "tools/bus/BusError.h"

namespace {

uint32_t AddressOf(const ifaddrs& entry) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_INET) {
        return 0;
    }
    sockaddr_in address = {};
    memcpy(&address, entry.ifa_addr, sizeof address);
    return address.sin_addr.s_addr;
}

// By address, or if that is 0 by name.
Interface Find(const std::string& name, uint32_t address) {
    Interface found;
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) {
        throw BusError("can't ask for the interfaces: " + ErrorText(errno));
    }
    for (const ifaddrs* entry = all; entry != nullptr; entry = entry->ifa_next) {
        const uint32_t own = AddressOf(*entry);
        if (address != 0 ? own != address : name != entry->ifa_name) {
            continue;
        }
        found.name = entry->ifa_name;
        found.index = if_nametoindex(entry->ifa_name);
        found.up = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
        if (own != 0) {
            found.address = own;
            break;
        }
    }
    freeifaddrs(all);
    return found;
}

}  // namespace

Interface FindInterface(const std::string& text, uint32_t group) {
    in_addr address = {};
    if (text.empty()) {
        const Route route = FindRoute(group);
        return route.error == 0 ? Find({}, route.address) : Interface();
    }
    return inet_pton(AF_INET, text.c_str(), &address) == 1 ? Find({}, address.s_addr)
                                                           : Find(text, 0);
}

Route FindRoute(uint32_t group) {
    const Descriptor sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock.IsOpen()) {
        throw BusError("can't ask for the route: " + ErrorText(errno));
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(1);
    address.sin_addr.s_addr = htonl(group);
    sockaddr* const raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (connect(sock.Get(), raw, size) != 0 || getsockname(sock.Get(), raw, &size) != 0) {
        return {errno, 0};
    }
    return {0, address.sin_addr.s_addr};
}

std::string HostText(uint32_t address) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string(address >> shift & 0xFF);
        text += shift > 0 ? "." : "";
    }
    return text;
}
