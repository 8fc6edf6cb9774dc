#include "tests/support/loopback.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "tests/support/sockets.h"

namespace {

const int LIMIT_MS = 5000;

bool Readable(int fd, int timeout_ms) {
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, timeout_ms) == 1;
}

}  // namespace

LoopbackServer::LoopbackServer(unsigned short port, const char* ip)
    : m_listener(bound_socket(SOCK_STREAM, ip, port, SO_REUSEADDR, 1)), m_port(0) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    if (listen(m_listener, 40) == 0 &&
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) == 0) {
        m_port = ntohs(address.sin_port);
    }
}

LoopbackServer::~LoopbackServer() {
    Drop();
    close(m_listener);
}

bool LoopbackServer::Accept() {
    Drop();
    m_sock = Readable(m_listener, LIMIT_MS) ? accept(m_listener, nullptr, nullptr) : -1;
    return m_sock != -1;
}

bool LoopbackServer::HasConnection() {
    return Readable(m_listener, 0);
}

void LoopbackServer::Send(const std::string& bytes) {
    send(m_sock, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::string LoopbackServer::Receive(size_t size) {
    std::string received;
    while (received.size() < size && Readable(m_sock, LIMIT_MS)) {
        char buf[4096];
        const ssize_t got = recv(m_sock, buf, std::min(sizeof buf, size - received.size()), 0);
        if (got <= 0) {
            break;
        }
        received.append(buf, static_cast<size_t>(got));
    }
    return received;
}

bool LoopbackServer::IsQuiet() {
    return !Readable(m_sock, 0);
}

bool LoopbackServer::SeesEnd() {
    char c;
    return Readable(m_sock, LIMIT_MS) && recv(m_sock, &c, 1, MSG_PEEK) <= 0;
}

void LoopbackServer::Drop() {
    if (m_sock != -1) {
        close(m_sock);
        m_sock = -1;
    }
}
