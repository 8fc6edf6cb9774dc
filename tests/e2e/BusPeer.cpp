#include "tests/e2e/BusPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const unsigned short BUS_PORT = 2060;
const unsigned short REPORT_PORT = 2055;

sockaddr_in Address(const char* ip, unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(ip);
    address.sin_port = htons(port);
    return address;
}

int BoundSocket(const char* ip, unsigned short port) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Address(ip, port);
    if (bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        perror("bind");
    }
    return sock;
}

}  // namespace

BusPeer::BusPeer(const Host& host, const char* address, const char* group)
    : m_host(host), m_address(address), m_listener(-1), m_sender(-1) {
    const Host::Scope on(host);
    m_listener = BoundSocket(group, REPORT_PORT);
    m_sender = BoundSocket(address, 0);
    const in_addr own = {inet_addr(address)};
    const ip_mreq membership = {{inet_addr(group)}, own};
    setsockopt(m_listener, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership);
    setsockopt(m_sender, IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own);
}

BusPeer::~BusPeer() {
    close(m_listener);
    close(m_sender);
}

void BusPeer::Send(const std::string& bytes, const char* to) {
    SendBy(m_sender, bytes, to);
}

void BusPeer::SendFrom(unsigned short port, const std::string& bytes, const char* to) {
    const Host::Scope on(m_host);
    const int sock = BoundSocket(m_address, port);
    SendBy(sock, bytes, to);
    close(sock);
}

void BusPeer::SendBy(int sock, const std::string& bytes, const char* to) {
    const sockaddr_in address = Address(to, BUS_PORT);
    if (sendto(sock, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
               sizeof address) < 0) {
        perror("sendto");
    }
}

std::vector<std::string> BusPeer::Take(int sock) {
    std::vector<std::string> taken;
    char buf[65536];
    for (ssize_t got = 0; (got = recv(sock, buf, sizeof buf, 0)) >= 0;) {
        taken.emplace_back(buf, static_cast<size_t>(got));
    }
    return taken;
}

std::string BusPeer::Packet(char type, const std::string& payload) {
    const std::string tid = {0, 0, 1, static_cast<char>(++m_tid)};
    return std::string("\3") + type + "\2\7" + tid + std::string(8, '\0') + payload;
}
