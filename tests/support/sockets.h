// Plain sockets for tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

// "a.b.c.d" and a port as a socket address.
class Place {
public:
    Place(const char* ip, unsigned short port) {
        m_Address.sin_family = AF_INET;
        m_Address.sin_addr.s_addr = inet_addr(ip);
        m_Address.sin_port = htons(port);
    }
    operator const sockaddr*() const { return reinterpret_cast<const sockaddr*>(&m_Address); }

    static const socklen_t SIZE = sizeof(sockaddr_in);

private:
    sockaddr_in m_Address = {};
};

// A bound socket, with an option of the level SOL_SOCKET such as SO_REUSEADDR. -1, with the reason
// printed, when it can't be bound.
inline int bound_socket(int type, const char* ip, unsigned short port, int option = SO_BROADCAST,
                        int value = 0) {
    const int sock = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    setsockopt(sock, SOL_SOCKET, option, &value, sizeof value);
    if (bind(sock, Place(ip, port), Place::SIZE) != 0) {
        perror("bind");
        close(sock);
        return -1;
    }
    return sock;
}
