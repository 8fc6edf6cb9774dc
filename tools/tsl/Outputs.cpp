#include "tools/tsl/Outputs.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "tools/base/ErrorText.h"
#include "tools/tsl/Codec.h"

namespace {

const double CONNECT_PAUSE = 3;     // seconds
const size_t MAX_UNSENT = 65536;    // bytes that a multiviewer may leave unread
const int USER_TIMEOUT_MS = 20000;  // a multiviewer that has vanished

short EventsOf(const std::vector<pollfd>& fds, int fd) {
    const auto found =
        std::find_if(fds.begin(), fds.end(), [fd](const pollfd& one) { return one.fd == fd; });
    return found == fds.end() ? short(0) : found->revents;
}

}  // namespace

void Outputs::Configure(const std::vector<TslSend>& send, const std::vector<TslPin>& pins) {
    std::list<Line> lines;
    for (const TslSend& config : send) {
        const auto same = std::find_if(m_lines.begin(), m_lines.end(), [&config](const Line& line) {
            return line.config == config;
        });
        if (same != m_lines.end()) {
            lines.splice(lines.end(), m_lines, same);
        } else {
            lines.emplace_back();
            lines.back().config = config;
        }
        lines.back().due = lines.back().connecting ? lines.back().due : Now();
    }
    m_lines = std::move(lines);
    m_pins = pins;
    m_indices.clear();
    for (const TslPin& pin : m_pins) {
        m_indices.insert(pin.index);
        m_levels[pin.tag];
    }
}

void Outputs::Tell(uint32_t tag, std::optional<Level> level) {
    const auto found = m_levels.find(tag);
    if (found == m_levels.end() || found->second == level) {
        return;
    }
    found->second = level;
    for (const TslPin& pin : m_pins) {
        if (pin.tag == tag) {
            m_shown.insert(pin.index);
            for (Line& line : m_lines) {
                line.changed.insert(pin.index);
            }
        }
    }
}

// None: no pin of this display is known, or none has a tally in this version.
std::optional<Display> Outputs::Show(const Line& line, uint16_t index) const {
    Display display;
    display.version = line.config.version;
    display.screen = line.config.screen;
    display.index = index;
    bool has_tally = false;
    for (const TslPin& pin : m_pins) {
        const uint8_t tallies = display.version == TslVersion::V31 ? pin.tallies_31 : pin.tallies_5;
        if (pin.index != index || tallies == 0) {
            continue;
        }
        has_tally = true;
        if (m_levels.at(pin.tag) == Level::Low) {
            display.tallies = static_cast<uint8_t>(display.tallies | tallies);
        }
        display.label = display.label.empty() ? pin.label : display.label;
    }
    return has_tally && m_shown.count(index) != 0 ? std::optional<Display>(display) : std::nullopt;
}

void Outputs::AddDescriptors(std::vector<pollfd>& fds) const {
    for (const Line& line : m_lines) {
        if (line.socket.IsOpen() && line.config.transport == Transport::Tcp) {
            const bool writes = line.connecting || !line.unsent.empty();
            fds.push_back({line.socket.Get(), static_cast<short>(writes ? POLLOUT : POLLIN), 0});
        }
    }
}

TimePoint Outputs::NextTime() const {
    TimePoint next = TimePoint::max();
    for (const Line& line : m_lines) {
        next = std::min(next, line.connecting ? TimePoint::max() : line.due);
    }
    return next;
}

void Outputs::Serve(const std::vector<pollfd>& fds) {
    for (Line& line : m_lines) {
        if (!line.socket.IsOpen() && Now() >= line.due) {
            Open(line);
        }
        const short events = line.socket.IsOpen() ? EventsOf(fds, line.socket.Get()) : short(0);
        if (line.connecting) {
            if (events != 0) {
                Connected(line);
            }
            continue;
        }
        if ((events & (POLLIN | POLLERR | POLLHUP)) != 0) {
            char unread[512];
            const ssize_t size = recv(line.socket.Get(), unread, sizeof unread, 0);
            if (size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR)) {
                Fail(line, size == 0 ? "has ended the connection" : ErrorText(errno));
            }
        }
        if (!line.socket.IsOpen()) {
            continue;
        }
        SendBytes(line, "");
        if (Now() >= line.due) {
            line.due = Later(Now(), line.config.every);
            Send(line, m_indices);
        } else if (!line.changed.empty()) {
            Send(line, line.changed);
        }
        line.changed.clear();
    }
}

void Outputs::Open(Line& line) {
    const bool tcp = line.config.transport == Transport::Tcp;
    line.socket = Descriptor(
        socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(line.config.endpoint.port);
    inet_pton(AF_INET, line.config.endpoint.ip.c_str(), &address.sin_addr);
    if (tcp) {
        const int on = 1;
        setsockopt(line.socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(line.socket.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT, &USER_TIMEOUT_MS,
                   sizeof USER_TIMEOUT_MS);
    }
    const int result =
        connect(line.socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (result != 0 && errno != EINPROGRESS) {
        return Fail(line, ErrorText(errno));
    }
    line.connecting = result != 0;
}

void Outputs::Connected(Line& line) {
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(line.socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
    line.connecting = false;
    if (error != 0) {
        return Fail(line, ErrorText(error));
    }
    m_log("connected to " + line.config.Text());
    line.is_told = false;
    line.due = Now();
}

void Outputs::Fail(Line& line, const std::string& why) {
    if (!line.is_told) {
        m_log(line.config.Text() + ": " + why);
    }
    line.is_told = true;
    line.socket.Close();
    line.connecting = false;
    line.unsent.clear();
    line.due = Later(Now(), CONNECT_PAUSE);
}

void Outputs::Send(Line& line, const std::set<uint16_t>& indices) {
    std::vector<Display> displays;
    for (const uint16_t index : indices) {
        if (const std::optional<Display> display = Show(line, index)) {
            displays.push_back(*display);
        }
    }
    for (const std::string& packet : EncodeTsl(displays)) {
        if (line.config.transport == Transport::Tcp) {
            SendBytes(line, WrapTsl(line.config.version, packet));
        } else if (send(line.socket.Get(), packet.data(), packet.size(), 0) < 0 &&
                   errno != ECONNREFUSED && errno != EAGAIN && !line.is_told) {
            // Nobody may listen yet, and what is lost is sent again: only the first is told.
            line.is_told = true;
            m_log(line.config.Text() + ": " + ErrorText(errno));
        }
    }
}

// Sends these bytes behind those that could not be sent yet.
void Outputs::SendBytes(Line& line, const std::string& bytes) {
    if (!line.socket.IsOpen() || line.config.transport != Transport::Tcp) {
        return;
    }
    line.unsent += bytes;
    if (line.unsent.empty()) {
        return;
    }
    const ssize_t sent =
        send(line.socket.Get(), line.unsent.data(), line.unsent.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN && errno != EINTR) {
        return Fail(line, ErrorText(errno));
    }
    line.unsent.erase(0, static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    if (line.unsent.size() > MAX_UNSENT) {
        Fail(line, "reads nothing");
    }
}
