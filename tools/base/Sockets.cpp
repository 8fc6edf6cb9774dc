#include "tools/base/Sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

void Check(bool ok, const std::string& what) {
    if (!ok) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

bool IsTransient(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ECONNABORTED;
}

void WatchPeer(int socket, int seconds) {
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &seconds, sizeof seconds);
    setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &seconds, sizeof seconds);
}
