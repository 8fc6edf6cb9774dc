#include "tools/tsl/Inputs.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "tools/base/Sockets.h"
#include "tools/bus/Interface.h"

namespace {

const int BACKLOG = 16;
const size_t MAX_CLIENTS = 32;           // of one place
const int DATAGRAMS = 500;               // in one turn
const int RECEIVE_BUFFER = 1024 * 1024;  // for bursts; the system may give less
const size_t READ_SIZE = 16384;
const size_t SHOWN_BYTES = 32;  // of a malformed packet
const int KEEPALIVE_S = 10;     // closes connections of switchers that have vanished

bool IsAllowed(const TslListen& listen, uint32_t host) {
    return listen.from.empty() ||
           std::any_of(listen.from.begin(), listen.from.end(),
                       [host](const Network& network) { return network.Contains(host); });
}

bool IsReady(const std::vector<pollfd>& fds, int fd) {
    return std::any_of(fds.begin(), fds.end(),
                       [fd](const pollfd& one) { return one.fd == fd && one.revents != 0; });
}

// What a call of recvmsg() brings.
struct Received {
    ssize_t size = -1;       // below 0: nothing, errno says why
    uint32_t host = 0;       // of a datagram, in host byte order
    uint32_t lost = 0;       // datagrams since the socket was opened
    TimePoint time = Now();  // when the system received it
};

// The moment at which the clock showed that time, unless it has been set since.
TimePoint MomentOf(const timespec& time) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::nanoseconds age = std::chrono::seconds(now.tv_sec - time.tv_sec) +
                                         std::chrono::nanoseconds(now.tv_nsec - time.tv_nsec);
    return Now() - std::max(age, std::chrono::nanoseconds(0));
}

Received Receive(int socket, uint8_t* data, size_t size) {
    sockaddr_in from = {};
    iovec part = {};
    part.iov_base = data;
    part.iov_len = size;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(uint32_t))];
    msghdr message = {};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    Received received;
    received.size = recvmsg(socket, &message, 0);
    if (received.size < 0) {
        return received;
    }
    received.host = ntohl(from.sin_addr.s_addr);
    for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
         head = CMSG_NXTHDR(&message, head)) {
        if (head->cmsg_level == SOL_SOCKET && head->cmsg_type == SO_RXQ_OVFL) {
            memcpy(&received.lost, CMSG_DATA(head), sizeof received.lost);
        } else if (head->cmsg_level == SOL_SOCKET && head->cmsg_type == SCM_TIMESTAMPNS) {
            timespec time = {};
            memcpy(&time, CMSG_DATA(head), sizeof time);
            received.time = MomentOf(time);
        }
    }
    return received;
}

}  // namespace

std::string HexOf(const std::string& bytes) {
    std::string text;
    for (const char c : bytes.substr(0, SHOWN_BYTES)) {
        char hex[4];
        snprintf(hex, sizeof hex, "%02x ",
                 static_cast<unsigned int>(static_cast<unsigned char>(c)));
        text += hex;
    }
    text += bytes.size() > SHOWN_BYTES ? "..." : "";
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

Inputs::Inputs(Take take, Malformed malformed, Lost lost, Log log)
    : m_take(std::move(take)),
      m_malformed(std::move(malformed)),
      m_lost(std::move(lost)),
      m_log(std::move(log)) {}

void Inputs::Listen(const std::vector<TslListen>& wanted) {
    std::list<Listener> added;
    for (const TslListen& config : wanted) {
        const auto is_it = [&config](const Listener& one) {
            return one.config.IsSameSocket(config);
        };
        const auto found = std::find_if(m_listeners.begin(), m_listeners.end(), is_it);
        if (found == m_listeners.end()) {
            added.push_back(Open(config));
        }
    }
    // From here on nothing fails.
    const auto find = [&wanted](const TslListen& old) {
        return std::find_if(wanted.begin(), wanted.end(),
                            [&old](const TslListen& config) { return config.IsSameSocket(old); });
    };
    for (auto one = m_listeners.begin(); one != m_listeners.end();) {
        const auto config = find(one->config);
        if (config == wanted.end()) {
            one = m_listeners.erase(one);
        } else {
            one->config = *config;
            ++one;
        }
    }
    for (auto one = m_clients.begin(); one != m_clients.end();) {
        const auto config = find(one->config);
        const auto next = std::next(one);
        if (config == wanted.end() || !(*config == one->config)) {
            Close(one);
        }
        one = next;
    }
    for (const Listener& one : added) {
        m_log("listening on " + one.config.Text());
    }
    m_listeners.splice(m_listeners.end(), added);
}

Inputs::Listener Inputs::Open(const TslListen& config) const {
    const std::string what = "can't listen on " + config.Text();
    const bool tcp = config.transport == Transport::Tcp;
    Descriptor fd(
        socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    Check(fd.IsOpen(), what);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(config.endpoint.port);
    inet_pton(AF_INET, config.endpoint.ip.c_str(), &address.sin_addr);
    const int on = 1;
    if (tcp) {
        setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    } else {
        setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
        setsockopt(fd.Get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    }
    setsockopt(fd.Get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);  // its connections too
    Check(bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, what);
    Check(!tcp || listen(fd.Get(), BACKLOG) == 0, what);
    Listener listener;
    listener.config = config;
    listener.socket = std::move(fd);
    return listener;
}

void Inputs::AddDescriptors(std::vector<pollfd>& fds) const {
    for (const Listener& listener : m_listeners) {
        fds.push_back({listener.socket.Get(), POLLIN, 0});
    }
    for (const Client& client : m_clients) {
        fds.push_back({client.socket.Get(), POLLIN, 0});
    }
}

void Inputs::Serve(const std::vector<pollfd>& fds) {
    for (auto client = m_clients.begin(); client != m_clients.end();) {
        const auto next = std::next(client);
        if (IsReady(fds, client->socket.Get()) && !Read(*client)) {
            m_log(HostText(client->host) + " has ended its connection");
            Close(client);
        }
        client = next;
    }
    for (Listener& listener : m_listeners) {
        if (IsReady(fds, listener.socket.Get())) {
            listener.config.transport == Transport::Udp ? ReceiveAll(listener) : Accept(listener);
        }
    }
}

// The system tells with a datagram how many were lost before it. What they said is not known, so
// that is told first.
void Inputs::ReceiveAll(Listener& listener) {
    uint8_t buffer[TSL5_MAX_SIZE + 1];  // one more, to see what is too long
    for (int i = 0; i < DATAGRAMS; ++i) {
        const Received received = Receive(listener.socket.Get(), buffer, sizeof buffer);
        if (received.size < 0) {
            return;
        }
        if (received.lost != 0 && received.lost != listener.lost) {
            m_lost(received.lost - listener.lost);
            listener.lost = received.lost;
        }
        if (IsAllowed(listener.config, received.host)) {
            TakePacket(listener.config.version, received.host, received.time, buffer,
                       static_cast<size_t>(received.size));
        }
    }
}

void Inputs::Accept(Listener& listener) {
    sockaddr_in from = {};
    socklen_t length = sizeof from;
    Descriptor fd(accept4(listener.socket.Get(), reinterpret_cast<sockaddr*>(&from), &length,
                          SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd.IsOpen()) {
        return;
    }
    const uint32_t host = ntohl(from.sin_addr.s_addr);
    const bool is_full = listener.clients == MAX_CLIENTS;
    if (!IsAllowed(listener.config, host) || is_full) {
        if (is_full && !listener.refused) {
            m_log(listener.config.Text() + " has 32 connections: others are refused");
        }
        listener.refused = listener.refused || is_full;
        return;
    }
    WatchPeer(fd.Get(), KEEPALIVE_S);
    ++listener.clients;
    m_log(HostText(host) + " has connected to " + listener.config.Text());
    m_clients.push_back({std::move(fd), listener.config, host, TslStream(listener.config.version)});
}

// False if the connection has ended.
bool Inputs::Read(Client& client) {
    uint8_t buffer[READ_SIZE];
    const Received received = Receive(client.socket.Get(), buffer, sizeof buffer);
    if (received.size <= 0) {
        return received.size < 0 && IsTransient(errno);
    }
    client.stream.Take(
        buffer, static_cast<size_t>(received.size),
        [&](const uint8_t* data, size_t length) {
            TakePacket(client.config.version, client.host, received.time, data, length);
        },
        [&] { m_malformed(client.host, "bytes that belong to no packet", ""); });
    return true;
}

void Inputs::TakePacket(TslVersion version, uint32_t host, TimePoint time, const uint8_t* data,
                        size_t size) {
    m_displays.clear();
    const std::string problem = DecodeTsl(version, data, size, m_displays);
    if (problem.empty()) {
        m_take(m_displays, host, time);
    } else {
        m_malformed(host, problem, std::string(data, data + size));
    }
}

void Inputs::Close(const std::list<Client>::iterator& client) {
    for (Listener& listener : m_listeners) {
        if (listener.config.transport == Transport::Tcp &&
            listener.config.endpoint == client->config.endpoint) {
            --listener.clients;
            listener.refused = false;
        }
    }
    m_clients.erase(client);
}
