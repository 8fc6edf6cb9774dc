#include "net/InetSocket.h"

#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "net/InetAddress.h"

namespace {

const uint32_t NO_LIMIT = 0xFFFFFFFF;

// Start-up hooks for systems whose sockets need them; nothing to do on Linux.
int MyWSAInit() {
    return 0;
}

void MyWSAClose() {}

template <typename T>
int set_option(int sock, int level, int option, const T& value) {
    return setsockopt(sock, level, option, &value, sizeof value);
}

int get_option(int sock, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(sock, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

in_addr network_address(unsigned long ip) {
    return {static_cast<in_addr_t>(ip)};
}

int set_membership(int sock, int option, unsigned long group, unsigned long iface) {
    ip_mreq request = {};
    request.imr_multiaddr = network_address(group);
    request.imr_interface = network_address(iface);
    return set_option(sock, IPPROTO_IP, option, request);
}

// For a larger descriptor FD_SET would write past the fd_set.
bool fits_set(int sock) {
    return sock >= 0 && sock < FD_SETSIZE;
}

int wait_for(int sock, unsigned long ms, bool write) {
    if (!fits_set(sock)) {
        errno = EBADF;
        return -1;
    }
    fd_set set;
    FD_ZERO(&set);
    FD_SET(sock, &set);
    const uint32_t time = static_cast<uint32_t>(ms);
    timeval limit = {static_cast<time_t>(time / 1000),
                     static_cast<suseconds_t>(time % 1000 * 1000)};
    return select(sock + 1, write ? nullptr : &set, write ? &set : nullptr, nullptr,
                  time == NO_LIMIT ? nullptr : &limit);
}

}  // namespace

CInetSocket::CInetSocket() {
    MyWSAInit();
}

CInetSocket::~CInetSocket() {
    Close();
    MyWSAClose();
}

int CInetSocket::Open(bool stream) {
    m_nSocket = socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (m_nSocket == -1) {
        return -1;
    }
    if (!fits_set(m_nSocket)) {
        ForceClose();
        errno = EMFILE;
        return -1;
    }
    return 0;
}

int CInetSocket::Bind(int port, const char* host) {
    CInetAddress local;
    const uint16_t local_port = static_cast<uint16_t>(port);
    if (host == nullptr) {
        local.SetListenAddress(local_port);
    } else if (local.SetAddress(host, local_port) != 0) {
        return -1;
    }
    set_option(m_nSocket, SOL_SOCKET, SO_REUSEADDR, 1);
    SetMcastInterface(htonl(static_cast<uint32_t>(local.GetIP())));
    if (bind(m_nSocket, local.GetAddressPtr(), static_cast<socklen_t>(local.GetAddressSize())) !=
        0) {
        const int err = errno;
        Close();
        errno = err;
        return -1;
    }
    return 0;
}

void CInetSocket::Close() {
    if (m_nSocket != -1) {
        shutdown(m_nSocket, SHUT_RDWR);
        ForceClose();
    }
}

int CInetSocket::ForceClose() {
    if (m_nSocket == -1) {
        return 0;
    }
    const int result = close(m_nSocket);
    m_nSocket = -1;
    return result;
}

int CInetSocket::SetMcastTTL(unsigned int ttl) {
    return set_option(m_nSocket, IPPROTO_IP, IP_MULTICAST_TTL, ttl);
}

int CInetSocket::SetMcastInterface(unsigned long iface) {
    return set_option(m_nSocket, IPPROTO_IP, IP_MULTICAST_IF, network_address(iface));
}

int CInetSocket::JoinMcastGroup(unsigned long group, unsigned long iface) {
    return set_membership(m_nSocket, IP_ADD_MEMBERSHIP, group, iface);
}

int CInetSocket::LeaveMcastGroup(unsigned long group, unsigned long iface) {
    return set_membership(m_nSocket, IP_DROP_MEMBERSHIP, group, iface);
}

int CInetSocket::AllowSendBroadcasts(bool allow) {
    return set_option(m_nSocket, SOL_SOCKET, SO_BROADCAST, allow ? 1 : 0);
}

int CInetSocket::SetWriteBufferSize(int size) {
    return set_option(m_nSocket, SOL_SOCKET, SO_SNDBUF, size);
}

int CInetSocket::SetReadBufferSize(int size) {
    return set_option(m_nSocket, SOL_SOCKET, SO_RCVBUF, size);
}

int CInetSocket::GetWriteBufferSize() {
    return get_option(m_nSocket, SO_SNDBUF);
}

int CInetSocket::GetReadBufferSize() {
    return get_option(m_nSocket, SO_RCVBUF);
}

int CInetSocket::WaitForRead(unsigned long ms) {
    return wait_for(m_nSocket, ms, false);
}

int CInetSocket::WaitForWrite(unsigned long ms) {
    return wait_for(m_nSocket, ms, true);
}

int CInetSocket::SetBlocking(bool blocking) {
    if (m_nSocket == -1) {
        return 0;
    }
    int on = blocking ? 0 : 1;
    return ioctl(m_nSocket, FIONBIO, &on);
}

int CInetSocket::GetBytesAvailable() {
    if (m_nSocket == -1) {
        return 0;
    }
    int bytes = 0;
    return ioctl(m_nSocket, FIONREAD, &bytes) == 0 ? bytes : -1;
}

int CInetSocket::Write(const char* data, int len) {
    int sent = 0;
    while (sent < len) {
        const ssize_t result = send(m_nSocket, data + sent, static_cast<size_t>(len - sent), 0);
        if (result <= 0) {
            return result < 0 ? -1 : sent;
        }
        sent += static_cast<int>(result);
    }
    return sent;
}

int CInetSocket::Read(char* buf, int len) {
    int received = 0;
    while (received < len) {
        const size_t room = static_cast<size_t>(len - received);
        const ssize_t result = recv(m_nSocket, buf + received, room, 0);
        if (result < 0) {
            return errno == EWOULDBLOCK && received > 0 ? received : -1;
        }
        if (result == 0) {
            break;
        }
        received += static_cast<int>(result);
    }
    return received;
}

int CInetSocket::Write(const CInetAddress* to, const char* data, int len) {
    return static_cast<int>(sendto(m_nSocket, data, static_cast<size_t>(len), 0,
                                   to->GetAddressPtr(),
                                   static_cast<socklen_t>(to->GetAddressSize())));
}

int CInetSocket::Read(CInetAddress* from, char* buf, int len) {
    socklen_t size = static_cast<socklen_t>(from->GetAddressSize());
    return static_cast<int>(
        recvfrom(m_nSocket, buf, static_cast<size_t>(len), 0, from->GetAddress(), &size));
}
