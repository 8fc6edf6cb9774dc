#include "tools/doctor/NetworkTables.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

#include "tools/base/Descriptor.h"
#include "tqr/trace.h"

namespace {

// "0100007F:005D"; the address's bytes are in memory order.
void ReadEndpoint(std::istream& row, uint32_t& ip, uint16_t& port) {
    char colon = 0;
    row >> std::hex >> ip >> colon >> port >> std::dec;
}

bool ReadRow(const std::string& line, SocketRow& socket) {
    std::istringstream row(line);
    std::string skipped;
    char colon = 0;
    row >> skipped;
    ReadEndpoint(row, socket.local_ip, socket.local_port);
    ReadEndpoint(row, socket.remote_ip, socket.remote_port);
    row >> std::hex >> socket.state >> socket.unsent >> colon >> socket.unread >> std::dec;
    row >> skipped >> skipped >> skipped >> skipped >> socket.inode;
    const bool is_complete = !row.fail();
    row >> skipped >> skipped >> socket.drops;
    return is_complete;
}

}  // namespace

std::vector<SocketRow> ReadSockets(const std::string& protocol) {
    std::vector<SocketRow> rows;
    std::ifstream table("/proc/net/" + protocol);
    std::string line;
    std::getline(table, line);  // the column headings
    while (std::getline(table, line)) {
        SocketRow row;
        if (ReadRow(line, row)) {
            rows.push_back(row);
        }
    }
    return rows;
}

// A line per device ("2 eth0 : 1 V3"), then one per group, which begins with blanks.
std::vector<Membership> ReadMemberships() {
    std::vector<Membership> memberships;
    std::ifstream table("/proc/net/igmp");
    std::string device;
    for (std::string line; std::getline(table, line);) {
        std::istringstream row(line);
        if (!line.empty() && line[0] != '\t' && line[0] != ' ') {
            std::string number;
            row >> number >> device;
            continue;
        }
        uint32_t group = 0;
        if (row >> std::hex >> group) {
            memberships.push_back({device, group});
        }
    }
    return memberships;
}

std::vector<InterfaceAddress> ReadInterfaces() {
    std::vector<InterfaceAddress> interfaces;
    std::map<std::string, InterfaceAddress> without;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return interfaces;
    }
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        InterfaceAddress made{entry->ifa_name, 0, (entry->ifa_flags & IFF_UP) != 0,
                              (entry->ifa_flags & IFF_RUNNING) != 0};
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            sockaddr_in address;
            memcpy(&address, entry->ifa_addr, sizeof address);
            made.ip = address.sin_addr.s_addr;
            interfaces.push_back(made);
        }
        made.ip = 0;
        without.emplace(made.device, made);
    }
    freeifaddrs(list);
    for (const InterfaceAddress& entry : interfaces) {
        without.erase(entry.device);
    }
    for (const auto& entry : without) {
        interfaces.push_back(entry.second);
    }
    return interfaces;
}

int TryToBind(uint16_t port) {
    const Descriptor sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = Endpoint(INADDR_ANY, port);
    const int on = 1;
    setsockopt(sock.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto* const raw = reinterpret_cast<const sockaddr*>(&address);
    return bind(sock.Get(), raw, sizeof address) == 0 ? 0 : errno;
}

sockaddr_in Endpoint(uint32_t ip, uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = ip;
    return address;
}

std::string IpText(uint32_t ip) {
    return DottedQuad(ip).text;
}

std::string EndpointText(uint32_t ip, uint16_t port) {
    return IpText(ip) + ":" + std::to_string(port);
}
