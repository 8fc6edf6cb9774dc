#include "tools/server/ControlServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "protocol/source.h"
#include "tools/base/ErrorText.h"
#include "tools/base/Sockets.h"

namespace {

const int BACKLOG = 64;
const size_t READ_SIZE = 4096;
const std::chrono::seconds ACCEPT_PAUSE(1);
const size_t RESERVED_CLIENTS = 100;
const int KEEPALIVE_S = 20;  // closes connections to hosts that have vanished, after a few of these

std::string AddressText(const sockaddr_in& address) {
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, ip, sizeof ip);
    return std::string(ip) + ":" + std::to_string(ntohs(address.sin_port));
}

}  // namespace

ControlServer::ControlServer(Observer observer, Driver driver)
    : m_observer(std::move(observer)), m_driver(std::move(driver)) {}

uint16_t ControlServer::Listen(const std::string& ip, uint16_t port, const ListenAccess& access) {
    const std::string wanted = ip + ":" + std::to_string(port);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    errno = EINVAL;
    Check(inet_pton(AF_INET, ip.c_str(), &address.sin_addr) == 1, wanted);

    Descriptor sock(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    Check(sock.IsOpen(), wanted);
    const int on = 1;
    sockaddr* const raw = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    Check(setsockopt(sock.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, wanted);
    Check(bind(sock.Get(), raw, size) == 0, wanted);
    Check(listen(sock.Get(), BACKLOG) == 0, wanted);
    Check(getsockname(sock.Get(), raw, &size) == 0, wanted);

    m_port = ntohs(address.sin_port);
    m_listeners.push_back({std::move(sock), AddressText(address), access});
    return m_port;
}

void ControlServer::EndListening(const std::string& ip, uint16_t port) {
    const std::string address = ip + ":" + std::to_string(port);
    for (Listener& listener : m_listeners) {
        if (listener.address == address) {
            listener.socket.Close();
        }
    }
    for (Connection& client : m_clients) {
        if (client.address == address) {
            Disconnect(client, "dropped");
        }
    }
}

std::string ControlServer::Apply(const std::string& line) {
    const LineEffect effect = m_device.Apply(line, Clock::now());
    Broadcast(effect.broadcast);
    if (effect.changed_output != 0) {
        ShowOutput(effect.changed_output);
    }
    if (effect.changed_input != 0) {
        ReportInput(effect.changed_input);
    }
    return effect.error;
}

// cppcheck-suppress passedByValue; five bits
void ControlServer::SetPresent(int number, std::bitset<DeviceState::PINS> pins) {
    if (m_device.SetPresent(number, pins)) {
        ShowOutput(number);
    }
}

void ControlServer::SendRaw(const std::string& bytes) {
    for (Connection& client : m_clients) {
        if (client.socket.IsOpen()) {
            Tell(EventKind::Sent, client.peer, bytes);
            SendBytes(client, bytes);
        }
    }
}

void ControlServer::DropAll() {
    for (Connection& client : m_clients) {
        Disconnect(client, "dropped");
    }
}

void ControlServer::Close() {
    for (Listener& listener : m_listeners) {
        listener.socket.Close();
    }
    DropAll();
}

size_t ControlServer::ClientCount() const {
    const auto is_open = [](const Connection& client) { return client.socket.IsOpen(); };
    return static_cast<size_t>(std::count_if(m_clients.begin(), m_clients.end(), is_open));
}

std::vector<std::string> ControlServer::DescribeClients() const {
    std::vector<std::string> lines;
    for (const Connection& client : m_clients) {
        if (!client.socket.IsOpen()) {
            continue;
        }
        std::string line = client.peer;
        for (size_t number = 1; number < client.subscriptions.size(); ++number) {
            if (client.subscriptions[number]) {
                line += " GPI " + std::to_string(number);
            }
        }
        lines.push_back(line);
    }
    return lines;
}

void ControlServer::StepAll(const std::vector<ControlServer*>& servers, int timeout) {
    std::vector<pollfd> fds;
    for (const ControlServer* server : servers) {
        server->AddDescriptors(fds);
        timeout = server->Timeout(timeout);
    }
    poll(fds.data(), fds.size(), timeout);
    for (ControlServer* server : servers) {
        server->Serve(fds);
    }
}

void ControlServer::AddDescriptors(std::vector<pollfd>& fds) const {
    for (const Listener& listener : m_listeners) {
        if (listener.socket.IsOpen() && m_accept_after <= Clock::now()) {
            fds.push_back({listener.socket.Get(), POLLIN, 0});
        }
    }
    for (const Connection& client : m_clients) {
        if (client.socket.IsOpen()) {
            const int events = client.output.empty() ? POLLIN : POLLIN | POLLOUT;
            fds.push_back({client.socket.Get(), static_cast<short>(events), 0});
        }
    }
}

int ControlServer::Timeout(int limit) const {
    const Clock::time_point now = Clock::now();
    Clock::time_point next = m_device.NextExpiry().value_or(Clock::time_point::max());
    if (m_accept_after > now) {
        next = std::min(next, m_accept_after);
    }
    if (next == Clock::time_point::max()) {
        return limit;
    }
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::max(next, now) - now);
    const int milliseconds = static_cast<int>(wait.count());
    return limit < 0 ? milliseconds : std::min(limit, milliseconds);
}

void ControlServer::Serve(const std::vector<pollfd>& fds) {
    for (const pollfd& ready : fds) {
        if (ready.revents == 0) {
            continue;
        }
        const auto is_ready = [&ready](const auto& entry) {
            return entry.socket.Get() == ready.fd;
        };
        const auto listener = std::find_if(m_listeners.begin(), m_listeners.end(), is_ready);
        if (listener != m_listeners.end()) {
            Accept(*listener);
            continue;
        }
        const auto client = std::find_if(m_clients.begin(), m_clients.end(), is_ready);
        if (client != m_clients.end()) {
            Flush(*client);
            Receive(*client);
        }
    }
    for (const int number : m_device.Expire(Clock::now())) {
        ShowOutput(number);
    }
    const auto is_closed = [](const auto& entry) { return !entry.socket.IsOpen(); };
    m_listeners.remove_if(is_closed);
    m_clients.remove_if(is_closed);
}

void ControlServer::Accept(Listener& listener) {
    while (listener.socket.IsOpen()) {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        Descriptor sock(accept4(listener.socket.Get(), reinterpret_cast<sockaddr*>(&address), &size,
                                SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (sock.IsOpen()) {
            const std::string refusal = RefusalOf(listener, address);
            if (refusal.empty()) {
                AddConnection(std::move(sock), AddressText(address), listener);
            } else {
                Tell(EventKind::Problem, AddressText(address), refusal);
            }
            continue;
        }
        const int error = errno;
        if (!IsTransient(error)) {
            m_accept_after = Clock::now() + ACCEPT_PAUSE;
            Tell(EventKind::Problem, listener.address, "can't accept: " + ErrorText(error));
        }
        return;
    }
}

// Why the peer may not connect. Clients with fewer rights leave some places to the others.
std::string ControlServer::RefusalOf(const Listener& listener, const sockaddr_in& peer) const {
    const ListenAccess& access = listener.access;
    const auto has_peer = [&peer](const Network& network) {
        return network.Contains(ntohl(peer.sin_addr.s_addr));
    };
    if (!access.from.empty() && std::none_of(access.from.begin(), access.from.end(), has_peer)) {
        return "refused: " + listener.address + " is not for this address";
    }
    const size_t most = access.inputs_only ? MAX_CLIENTS - RESERVED_CLIENTS : MAX_CLIENTS;
    return ClientCount() < most ? "" : "refused: too many clients";
}

void ControlServer::AddConnection(Descriptor socket, const std::string& peer,
                                  const Listener& listener) {
    const int on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    WatchPeer(socket.Get(), KEEPALIVE_S);
    Connection client;
    client.socket = std::move(socket);
    client.peer = peer;
    client.address = listener.address;
    client.inputs_only = listener.access.inputs_only;
    m_clients.push_back(std::move(client));
    Tell(EventKind::Connected, peer, "connected to " + listener.address);
}

void ControlServer::Receive(Connection& client) {
    if (!client.socket.IsOpen()) {
        return;
    }
    char data[READ_SIZE];
    const ssize_t got = recv(client.socket.Get(), data, sizeof data, 0);
    if (got <= 0) {
        if (got == 0 || !IsTransient(errno)) {
            Disconnect(client, got == 0 ? "disconnected" : "lost: " + ErrorText(errno));
        }
        return;
    }
    client.input.Append(data, static_cast<size_t>(got));
    std::string line;
    LineBuffer::Result result = LineBuffer::Result::Incomplete;
    while (client.socket.IsOpen() &&
           (result = client.input.Next(line)) == LineBuffer::Result::Line) {
        HandleLine(client, line);
    }
    if (client.socket.IsOpen() && result == LineBuffer::Result::Overlong) {
        Tell(EventKind::Problem, client.peer, "line too long, closing the connection");
        Disconnect(client, "dropped");
    }
}

void ControlServer::HandleLine(Connection& client, const std::string& line) {
    Tell(EventKind::Received, client.peer, line);
    if (client.inputs_only && line.compare(0, 4, "ADD ") != 0 && line.compare(0, 4, "DEL ") != 0) {
        Tell(EventKind::Problem, client.peer, "not permitted at this address: " + Printable(line));
        return;
    }
    const LineEffect effect = m_device.Request(line, Clock::now());
    if (!effect.error.empty()) {
        Tell(EventKind::Problem, client.peer, effect.error);
        return;
    }
    // Number 0, for none, is a bit that no input has.
    client.subscriptions[static_cast<size_t>(effect.unsubscribe)] = false;
    client.subscriptions[static_cast<size_t>(effect.subscribe)] = true;
    for (const std::string& answer : effect.answers) {
        SendLine(client, answer);
    }
    if (effect.asked_configuration && m_driver) {
        SendStates(client);
    }
    if (effect.changed_output != 0) {
        ShowOutput(effect.changed_output);
    }
}

void ControlServer::SendStates(Connection& client) {
    for (const auto& [number, line] : m_device.Configuration()) {
        int ignored = 0;
        const char* const source = find_source(line.c_str() + strlen("CFG "), ignored);
        SendLine(client, m_device.OutputLine(number));
        if (source != nullptr && parse_source(source).proto == KIND_BUS) {
            client.subscriptions[static_cast<size_t>(number)] = true;
            SendLine(client, m_device.InputLine(number));
        }
    }
}

void ControlServer::SendLine(Connection& client, const std::string& line) {
    if (client.socket.IsOpen()) {
        Tell(EventKind::Sent, client.peer, line);
        SendBytes(client, line + "\n");
    }
}

void ControlServer::SendBytes(Connection& client, const std::string& bytes) {
    client.output += bytes;
    Flush(client);
    if (client.socket.IsOpen() && client.output.size() > MAX_OUTPUT) {
        Tell(EventKind::Problem, client.peer, "client does not read, closing the connection");
        Disconnect(client, "dropped");
    }
}

// Passes as much of the output to the system as it accepts without waiting.
void ControlServer::Flush(Connection& client) {
    while (client.socket.IsOpen() && !client.output.empty()) {
        const ssize_t sent =
            send(client.socket.Get(), client.output.data(), client.output.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            if (!IsTransient(errno)) {
                Disconnect(client, "lost: " + ErrorText(errno));
            }
            return;
        }
        client.output.erase(0, static_cast<size_t>(sent));
    }
}

void ControlServer::Broadcast(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        for (Connection& client : m_clients) {
            if (!client.inputs_only) {
                SendLine(client, line);
            }
        }
    }
}

void ControlServer::ShowOutput(int number) {
    if (m_driver) {
        m_driver(number);
    }
    Broadcast({m_device.OutputLine(number)});
}

void ControlServer::ReportInput(int number) {
    const std::string line = m_device.InputLine(number);
    for (Connection& client : m_clients) {
        if (client.subscriptions[static_cast<size_t>(number)]) {
            SendLine(client, line);
        }
    }
}

void ControlServer::Disconnect(Connection& client, const std::string& reason) {
    if (client.socket.IsOpen()) {
        client.socket.Close();
        Tell(EventKind::Disconnected, client.peer, reason);
    }
}

void ControlServer::Tell(EventKind kind, const std::string& peer, const std::string& text) const {
    if (m_observer) {
        m_observer({kind, peer, text});
    }
}
