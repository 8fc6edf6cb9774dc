#include "tools/tqrd/TqrdClient.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "net/InetAddress.h"
#include "tools/base/ErrorText.h"
#include "tqr/tqrlimits.h"

namespace {

const size_t MAX_OUTPUT = 65536;
const size_t READ_SIZE = 4096;
const unsigned VANISHED_AFTER = 20000;  // ms in which nothing that was sent is acknowledged

bool IsTransient(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

void TqrdClient::Connect(const CSvcAddress& server, std::chrono::milliseconds limit) {
    Close();
    m_input.Clear();
    m_problem.clear();
    m_error = 0;
    m_socket = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.IsOpen()) {
        Fail(errno);
        return;
    }
    const int on = 1;
    setsockopt(m_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(m_socket.Get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    set_keep_alive(m_socket.Get(), VANISHED_AFTER);
    setsockopt(m_socket.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &VANISHED_AFTER,
               sizeof VANISHED_AFTER);
    CInetAddress address;
    address.SetAddress(static_cast<long>(server.GetHost()), server.GetPort());
    m_connecting = true;
    m_deadline = Clock::now() + limit;
    if (connect(m_socket.Get(), address.GetAddressPtr(),
                static_cast<socklen_t>(address.GetAddressSize())) != 0 &&
        errno != EINPROGRESS) {
        Fail(errno);
    }
}

void TqrdClient::Close() {
    m_socket.Close();
    m_connecting = false;
    m_output.clear();
}

void TqrdClient::Send(const std::string& line) {
    SendBytes(line + "\n");
}

void TqrdClient::SendBytes(const std::string& bytes) {
    if (!IsOpen()) {
        return;
    }
    m_output += bytes;
    if (m_output.size() > MAX_OUTPUT) {
        Fail(0, "the server does not read");
    } else if (!m_connecting) {
        Flush();
    }
}

short TqrdClient::Events() const {
    const bool writes = m_connecting || !m_output.empty();
    return static_cast<short>((m_connecting ? 0 : POLLIN) | (writes ? POLLOUT : 0));
}

TqrdClient::Clock::time_point TqrdClient::Deadline() const {
    return m_connecting ? m_deadline : Clock::time_point::max();
}

void TqrdClient::Serve() {
    if (m_connecting) {
        FinishConnecting();
    }
    if (IsConnected()) {
        Flush();
    }
    if (IsConnected()) {
        Receive();
    }
}

void TqrdClient::FinishConnecting() {
    pollfd ready = {m_socket.Get(), POLLOUT, 0};
    if (poll(&ready, 1, 0) > 0) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(m_socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error != 0) {
            Fail(error);
        }
        m_connecting = false;
    } else if (Clock::now() >= m_deadline) {
        Fail(ETIMEDOUT, "no answer");
    }
}

// Passes as much to the system as it accepts without waiting.
void TqrdClient::Flush() {
    while (!m_output.empty()) {
        const ssize_t sent =
            send(m_socket.Get(), m_output.data(), m_output.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            // What the server sent before it reset the connection can still be received.
            if (!IsTransient(errno)) {
                m_output.clear();
            }
            return;
        }
        m_output.erase(0, static_cast<size_t>(sent));
    }
}

// Reads once: the buffer holds at most a line and the last read, however fast the server sends.
void TqrdClient::Receive() {
    char data[READ_SIZE];
    const ssize_t got = recv(m_socket.Get(), data, sizeof data, MSG_DONTWAIT);
    if (got > 0) {
        m_input.Append(data, static_cast<size_t>(got));
    } else if (got == 0) {
        Fail(0, "the server closed the connection");
    } else if (!IsTransient(errno)) {
        Fail(errno);
    }
}

bool TqrdClient::Next(std::string& line) {
    switch (m_input.Next(line)) {
        case LineBuffer::Result::Line:
            return true;
        case LineBuffer::Result::Overlong:
            m_input.Clear();
            Fail(0, "a line is too long");
            return false;
        case LineBuffer::Result::Incomplete:
            break;
    }
    return false;
}

bool TqrdClient::Wait(std::string& line, Clock::time_point until) {
    while (!Next(line)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(std::min(until, Deadline()) -
                                                                       Clock::now());
        if (!IsOpen() || Clock::now() >= until) {
            return false;
        }
        pollfd ready = {GetDescriptor(), Events(), 0};
        poll(&ready, 1, static_cast<int>(std::clamp<long long>(left.count(), 0, INT_MAX)));
        Serve();
    }
    return true;
}

// A problem without a text of its own gets the system's.
void TqrdClient::Fail(int error, const std::string& problem) {
    Close();
    m_problem = problem.empty() ? ErrorText(error) : problem;
    m_error = error;
}
