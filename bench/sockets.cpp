#include "bench/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

namespace {

sockaddr_in address_of(const char* address, unsigned short port) {
    sockaddr_in result = {};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = inet_addr(address);
    result.sin_port = htons(port);
    return result;
}

void enable(int sock, int level, int option) {
    const int on = 1;
    require(setsockopt(sock, level, option, &on, sizeof on) == 0, "setsockopt");
}

int open_bound(int type, const char* address, unsigned short port) {
    const int sock = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const sockaddr_in local = address_of(address, port);
    enable(sock, SOL_SOCKET, SO_REUSEADDR);
    require(bind(sock, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0, "bind");
    return sock;
}

}  // namespace

void require(bool ok, const char* what) {
    if (!ok) {
        perror(what);
        exit(1);
    }
}

int listen_at(const char* address, unsigned short port) {
    const int sock = open_bound(SOCK_STREAM, address, port);
    require(listen(sock, 8) == 0, "listen");
    return sock;
}

int connect_to(const char* address, unsigned short port) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in peer = address_of(address, port);
    enable(sock, IPPROTO_TCP, TCP_NODELAY);
    require(connect(sock, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0, "connect");
    return sock;
}

int open_udp(const char* address, unsigned short port) {
    return open_bound(SOCK_DGRAM, address, port);
}

void join(int sock, const char* group, const char* own_address) {
    ip_mreq request = {};
    request.imr_multiaddr.s_addr = inet_addr(group);
    request.imr_interface.s_addr = inet_addr(own_address);
    require(setsockopt(sock, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) == 0, "join");
}
