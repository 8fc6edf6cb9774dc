#include "bench/sockets.h"

#include <netinet/tcp.h>

#include <cstdio>
#include <cstdlib>

#include "tests/support/sockets.h"

namespace {

int open_bound(int type, const char* address, unsigned short port) {
    const int sock = bound_socket(type, address, port, SO_REUSEADDR, 1);
    require(sock != -1, "no socket");
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
    const int on = 1;
    require(setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "setsockopt");
    require(connect(sock, Place(address, port), Place::SIZE) == 0, "connect");
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
