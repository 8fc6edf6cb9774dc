#include "tests/world/Ledger.h"

#include <algorithm>

const Call& Ledger::ExpectBytes(const std::string& asks) {
    if (m_Next == m_World.log.size()) {
        m_World.Differ(asks, "nothing");
    }
    const Call& found = m_World.log[m_Next++];
    if (found.asks != asks) {
        m_World.Differ(asks, found.asks);
    }
    m_Clock = found.clock;
    return found;
}

bool Ledger::IsNext(const std::string& kind) const {
    return m_Next < m_World.log.size() && m_World.log[m_Next].asks.rfind(kind + " ", 0) == 0;
}

void Ledger::Close(int fd, bool with_shutdown) {
    if (with_shutdown) {
        Expect("shutdown", fd);
    }
    Expect("close", fd);
}

bool Ledger::Connect(Connection& connection, const Endpoint& to) {
    connection = {};
    if (IsNext("no buffer")) {
        Expect("no buffer");
        m_World.Count("lost: connection, no memory for it");
        return false;
    }
    const int fd = Opened("stream");
    if (fd < 0) {
        return true;
    }
    Expect("setsockopt", fd, "TCP_NODELAY", 1);
    Expect("setsockopt", fd, "SO_KEEPALIVE", 1);
    const Call connect = Expect("connect", fd, to.Text());
    if (connect.result == 0) {
        connection.fd = fd;
        connection.stream = connect.stream;
    } else {
        Close(fd);
    }
    return true;
}

bool Ledger::Take(Connection& connection, Line& line) {
    if (connection.fd == -1) {
        return false;
    }
    std::string& pending = connection.pending;
    if (ExpectBytes(std::string("poll ") + static_cast<char>(connection.fd)).result > 0) {
        const Call& read = Expect("recv", connection.fd, 2000 - static_cast<long>(pending.size()));
        if (read.result <= 0) {
            Close(connection.fd);
            m_World.Count("lost: lines behind which the connection ended",
                          static_cast<long>(connection.stream->lines.size()));
            connection = {};
            return false;
        }
        pending += read.got;
    }
    const size_t end = pending.find_first_of(std::string("\r\n\0", 3));
    if (end == std::string::npos || pending[end] == '\0') {
        return false;
    }
    const std::string text = pending.substr(0, end);
    pending.erase(0, std::min(pending.find_first_not_of("\r\n", end), pending.size()));
    line = {};
    if (!text.empty()) {
        line = connection.stream->lines.front();
        connection.stream->lines.pop_front();
        if (line.text != text) {
            m_World.Differ("the line " + line.text, "the line " + text);
        }
    }
    return true;
}
