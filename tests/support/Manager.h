// The socket of a service manager.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

// A name that no file has, of this process alone.
class Manager {
public:
    Manager()
        : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
          m_name("@orvex-test-" + std::to_string(getpid())) {
        sockaddr_un place = {};
        place.sun_family = AF_UNIX;
        memcpy(place.sun_path + 1, m_name.c_str() + 1, m_name.size() - 1);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_name.size());
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&place), size) != 0) {
            m_name.clear();
        }
    }
    ~Manager() { close(m_fd); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // For NOTIFY_SOCKET.
    const std::string& Name() const { return m_name; }

    // The next state that a program has sent; empty if none comes in time.
    std::string Next(int limit_ms = 5000) const {
        pollfd ready = {m_fd, POLLIN, 0};
        char data[512];
        const ssize_t got =
            poll(&ready, 1, limit_ms) > 0 ? recv(m_fd, data, sizeof data, 0) : ssize_t{0};
        return std::string(data, got > 0 ? static_cast<size_t>(got) : 0);
    }

private:
    int m_fd;
    std::string m_name;
};
