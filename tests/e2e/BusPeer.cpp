#include "tests/e2e/BusPeer.h"

#include <unistd.h>

#include "tests/support/sockets.h"

namespace {

const unsigned short BUS_PORT = 2060;
const unsigned short REPORT_PORT = 2055;

}  // namespace

BusPeer::BusPeer(const Host& host, const char* address, const char* group)
    : m_host(host), m_address(address), m_listener(-1), m_sender(-1) {
    const Host::Scope on(host);
    m_listener = bound_socket(SOCK_DGRAM | SOCK_NONBLOCK, group, REPORT_PORT);
    m_sender = bound_socket(SOCK_DGRAM | SOCK_NONBLOCK, address, 0);
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
    const int sock = bound_socket(SOCK_DGRAM, m_address, port);
    SendBy(sock, bytes, to);
    close(sock);
}

void BusPeer::SendBy(int sock, const std::string& bytes, const char* to) {
    if (sendto(sock, bytes.data(), bytes.size(), 0, Place(to, BUS_PORT), Place::SIZE) < 0) {
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
