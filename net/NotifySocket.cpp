#include "net/NotifySocket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

CNotifySocket::~CNotifySocket() {
    if (IsOpen()) {
        close(m_nSocket);
    }
}

bool CNotifySocket::Open(const char* address) {
    sockaddr_un place = {};
    const size_t len = address == nullptr ? 0 : strlen(address);
    if (IsOpen() || len < 2 || len >= sizeof place.sun_path) {
        return false;
    }
    place.sun_family = AF_UNIX;
    memcpy(place.sun_path, address, len);
    if (address[0] == '@') {
        place.sun_path[0] = '\0';
    }
    m_nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len);
    if (IsOpen() && connect(m_nSocket, reinterpret_cast<const sockaddr*>(&place), size) != 0) {
        close(m_nSocket);
        m_nSocket = -1;
    }
    return IsOpen();
}

bool CNotifySocket::Send(const char* state) const {
    return IsOpen() && send(m_nSocket, state, strlen(state), MSG_NOSIGNAL) >= 0;
}

long long watchdog_ms() {
    const char* const usec = getenv("WATCHDOG_USEC");
    const char* const pid = getenv("WATCHDOG_PID");
    if (usec == nullptr || (pid != nullptr && strtol(pid, nullptr, 10) != getpid())) {
        return 0;
    }
    return strtoll(usec, nullptr, 10) / 1000;
}
