#include "fuzz/Net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "fuzz/Check.h"
#include "tests/support/Host.h"

namespace {

const int LIMIT_MS = 5000;

sockaddr_in address(uint32_t ip, uint16_t port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = htonl(ip);
    result.sin_port = htons(port);
    return result;
}

int bound_socket(int type, uint32_t ip, uint16_t port) {
    const int sock = socket(AF_INET, type, 0);
    const sockaddr_in local = address(ip, port);
    CHECK(bind(sock, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0);
    return sock;
}

uint16_t remote_port(int sock) {
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &size);
    return ntohs(peer.sin_port);
}

// With a reset neither end waits for the other's last segments.
void reset(int sock) {
    const linger at_once = {1, 0};
    setsockopt(sock, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(sock);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    CHECK(Host::Prepare());
    static const Host host;
    static const Host::Scope on(host);
    CHECK(host.Run("ip route add 224.0.0.0/4 dev lo") == 0);
    signal(SIGPIPE, SIG_IGN);
    return 0;
}

bool is_readable(int fd) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

void await_readable(int fd) {
    pollfd p = {fd, POLLIN, 0};
    CHECK(poll(&p, 1, LIMIT_MS) == 1);
}

void await_bytes(int fd, size_t size) {
    for (int i = 0; i < LIMIT_MS; ++i) {
        int waiting = 0;
        CHECK(ioctl(fd, FIONREAD, &waiting) == 0);
        if (static_cast<size_t>(waiting) >= size) {
            return;
        }
        poll(nullptr, 0, 1);
    }
    const bool all_arrived = false;
    CHECK(all_arrived);
}

uint16_t port_of(int sock) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    CHECK(getsockname(sock, reinterpret_cast<sockaddr*>(&local), &size) == 0);
    return ntohs(local.sin_port);
}

TcpPeer::TcpPeer(uint16_t port) : m_Listener(bound_socket(SOCK_STREAM, INADDR_ANY, port)) {
    CHECK(listen(m_Listener, SOMAXCONN) == 0);
}

TcpPeer::~TcpPeer() {
    Reset();
    close(m_Listener);
}

void TcpPeer::Accept(int client) {
    const uint16_t port = port_of(client);
    const auto is_wanted = [port](int sock) { return remote_port(sock) == port; };
    std::vector<int>::iterator wanted;
    while ((wanted = std::find_if(m_Socks.begin(), m_Socks.end(), is_wanted)) == m_Socks.end()) {
        await_readable(m_Listener);
        AcceptAll();
    }
    std::iter_swap(wanted, m_Socks.begin());
    std::for_each(m_Socks.begin() + 1, m_Socks.end(), reset);
    m_Socks.resize(1);
}

void TcpPeer::AcceptAll() {
    while (is_readable(m_Listener)) {
        const int sock = accept(m_Listener, nullptr, nullptr);
        const int on = 1;
        setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // what is sent arrives at once
        m_Socks.push_back(sock);
    }
}

void TcpPeer::Send(const std::string& bytes) {
    for (const int sock : m_Socks) {
        send(sock, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}

std::string TcpPeer::Take(size_t wanted) {
    std::string taken;
    char buf[4096];
    for (int i = 0; i == 0 || (taken.size() < wanted && i < LIMIT_MS); ++i) {
        poll(nullptr, 0, std::min(i, 1));
        for (const int sock : m_Socks) {
            for (ssize_t got; (got = recv(sock, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
                taken.append(buf, static_cast<size_t>(got));
            }
        }
    }
    return taken;
}

void TcpPeer::Reset() {
    AcceptAll();
    for (const int sock : m_Socks) {
        reset(sock);
    }
    m_Socks.clear();
}

UdpPeer::UdpPeer(uint16_t port)
    : m_Sock(bound_socket(SOCK_DGRAM, port == 0 ? INADDR_LOOPBACK : INADDR_ANY, port)) {}

UdpPeer::~UdpPeer() {
    close(m_Sock);
}

void UdpPeer::Join(uint32_t group) {
    const ip_mreq request = {{group}, {htonl(INADDR_LOOPBACK)}};
    CHECK(setsockopt(m_Sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0);
}

void UdpPeer::Send(const std::string& datagram, uint16_t port) {
    const sockaddr_in to = address(INADDR_LOOPBACK, port);
    CHECK(sendto(m_Sock, datagram.data(), datagram.size(), 0,
                 reinterpret_cast<const sockaddr*>(&to),
                 sizeof to) == static_cast<ssize_t>(datagram.size()));
}

std::vector<std::string> UdpPeer::Take(size_t wanted) {
    std::vector<std::string> taken;
    char buf[65536];
    while (taken.size() < wanted || is_readable(m_Sock)) {
        await_readable(m_Sock);
        const ssize_t got = recv(m_Sock, buf, sizeof buf, MSG_DONTWAIT);
        CHECK(got >= 0);
        taken.emplace_back(buf, static_cast<size_t>(got));
    }
    return taken;
}
