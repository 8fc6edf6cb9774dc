// A client of a server on loopback that shows the received bytes.
#pragma once

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>

#include "tests/support/sockets.h"
#include "tools/base/Descriptor.h"

// Makes turns until the condition holds; false if it does not within 20 seconds.
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

    // Appends available bytes to received. False if the peer has closed the connection, or it could
    // not be made.
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
