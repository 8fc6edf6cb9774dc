// A client of a server on loopback whose bytes a test sees as they come.
#pragma once

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>

#include "tests/support/sockets.h"
#include "tools/base/Descriptor.h"

// Makes turns until the condition holds; false when it does not come true in good time.
inline bool Await(
    const std::function<bool()>& condition,
    const std::function<void()>& turn = [] { poll(nullptr, 0, 2); }) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        turn();
    }
    return true;
}

class TestClient {
public:
    explicit TestClient(uint16_t port)
        : m_socket(socket(AF_INET, SOCK_STREAM, 0)),
          m_connected(connect(m_socket.Get(), Place("127.0.0.1", port), Place::SIZE) == 0) {}

    void Send(const std::string& bytes) const {
        send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    // Reads what is there and adds it to received. False when the peer closed the connection, or
    // there never was one.
    bool Read() {
        char data[65536];
        ssize_t got = 0;
        while ((got = recv(m_socket.Get(), data, sizeof data, MSG_DONTWAIT)) > 0) {
            received.append(data, static_cast<size_t>(got));
        }
        return m_connected && got < 0 && errno == EAGAIN;
    }

    std::string received;

private:
    Descriptor m_socket;
    bool m_connected;
};
