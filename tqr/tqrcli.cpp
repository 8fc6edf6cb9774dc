#include "tqr/tqrcli.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "tqr/trace.h"

namespace {

const char* const APP_NAME = "tqrcli";

// What a buffer has behind its size. While lines arrive faster than they are handed out, the buffer
// is full: with these bytes the lines in it are not moved for every line that leaves it.
const size_t SLACK = 512;

// A socket, or -1. select() can't wait for one that does not fit an fd_set, so that is a failure.
int open_socket() {
    const int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock >= FD_SETSIZE) {
        close(sock);
        errno = EMFILE;
        return -1;
    }
    return sock;
}

// If an option can't be set, the connection is used without it.
void check_option(int result, const char* name) {
    if (result != 0) {
        fprintf(stderr, "%s: setsockopt(%s) failed err=%d\n", APP_NAME, name, errno);
    }
}

void enable_option(int sock, int level, int option, const char* name) {
    const int on = 1;
    check_option(setsockopt(sock, level, option, &on, sizeof on), name);
}

// connect(), within the limit. The send timeout is removed again: it would truncate lines to a slow
// reader.
bool connect_within(int sock, const sockaddr_in& peer, unsigned int limit_ms) {
    const sockaddr* const address = reinterpret_cast<const sockaddr*>(&peer);
    if (limit_ms == 0) {
        return connect(sock, address, sizeof peer) == 0;
    }
    check_option(set_connect_limit(sock, limit_ms), "SO_SNDTIMEO");
    if (connect(sock, address, sizeof peer) != 0) {
        errno = errno == EINPROGRESS ? ETIMEDOUT : errno;
        return false;
    }
    check_option(set_connect_limit(sock, 0), "SO_SNDTIMEO");
    return true;
}

void report_failed_connect(const sockaddr_in& peer) {
    const int err = errno;
    fprintf(stderr, "%s: connect(%s:%d) failed err=%d\n", APP_NAME,
            DottedQuad(peer.sin_addr.s_addr).text, ntohs(peer.sin_port), err);
}

}  // namespace

CTQRClient::~CTQRClient() {
    close();
}

int CTQRClient::open(unsigned long ip, short port, int size) {
    close();
    if (size >= 0 && size < INT_MAX) {
        m_nBufSize = size + 1;
        m_pBuf = new (std::nothrow) char[static_cast<size_t>(m_nBufSize) + SLACK];
    }
    m_pRead = m_pEnd = m_pBuf;
    if (m_pBuf == nullptr) {
        fprintf(stderr, "%s out of memory\n", APP_NAME);
        return -2;
    }

    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = static_cast<in_addr_t>(ip);
    peer.sin_port = htons(static_cast<uint16_t>(port));

    const int sock = open_socket();
    if (sock < 0) {
        fprintf(stderr, "%s: socket() failed err=%d\n", APP_NAME, errno);
        return -1;
    }
    enable_option(sock, IPPROTO_TCP, TCP_NODELAY, "TCP_NODELAY");
    enable_option(sock, SOL_SOCKET, SO_KEEPALIVE, "SO_KEEPALIVE");
    if (m_limits.peer_ms != 0) {
        check_option(set_keep_alive(sock, m_limits.peer_ms), "TCP_KEEPIDLE");
    }
    if (!connect_within(sock, peer, m_limits.connect_ms)) {
        report_failed_connect(peer);
        ::close(sock);
        return -1;
    }
    m_nSock = sock;
    return m_nSock;
}

int CTQRClient::open(const char* host, short port, int size) {
    return open(inet_addr(host), port, size);
}

int CTQRClient::send(const char* text) {
    if (m_nSock == -1) {
        return -1;
    }
    return static_cast<int>(::send(m_nSock, text, strlen(text), 0));
}

char* CTQRClient::recv(long timeout) {
    if (m_nSock == -1) {
        return nullptr;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(m_nSock, &readable);
    timeval limit = {0, static_cast<suseconds_t>(timeout)};
    if (select(m_nSock + 1, &readable, nullptr, nullptr, &limit) > 0 && !read_more()) {
        return nullptr;
    }
    return take_line();
}

// Reads what has arrived and appends it to the data not yet handed out. A full buffer without a
// line leaves no room: the read of 0 bytes then ends the connection as if the peer had closed it.
bool CTQRClient::read_more() {
    const size_t pending = static_cast<size_t>(m_pEnd - m_pRead);
    if (pending == 0 || static_cast<size_t>(m_pRead - m_pBuf) > SLACK) {
        memmove(m_pBuf, m_pRead, pending);
        m_pRead = m_pBuf;
        m_pEnd = m_pBuf + pending;
    }
    const size_t room = static_cast<size_t>(m_nBufSize) - pending - 1;
    const ssize_t got = ::recv(m_nSock, m_pEnd, room, 0);
    if (got <= 0) {
        fprintf(stderr, "%s: recv() failed err=%d\n", APP_NAME, errno);
        close();
        return false;
    }
    m_pEnd += got;
    *m_pEnd = '\0';
    return true;
}

char* CTQRClient::take_line() {
    if (m_pRead >= m_pEnd) {
        return nullptr;
    }
    char* const line = m_pRead;
    char* const end = line + strcspn(line, "\r\n");
    if (*end == '\0') {
        return nullptr;
    }
    *end = '\0';
    m_pRead = end + 1;
    while (m_pRead < m_pEnd && (*m_pRead == '\r' || *m_pRead == '\n')) {
        ++m_pRead;
    }
    return line;
}

bool CTQRClient::drop_vanished() {
    if (m_nSock == -1 || m_limits.peer_ms == 0 || !m_watch.HasVanished(m_nSock, m_limits.peer_ms)) {
        return false;
    }
    fprintf(stderr, "%s: recv() failed err=%d\n", APP_NAME, ETIMEDOUT);
    close();
    return true;
}

void CTQRClient::close() {
    if (m_nSock != -1) {
        ::close(m_nSock);
        m_nSock = -1;
    }
    delete[] m_pBuf;
    m_pBuf = nullptr;
}
