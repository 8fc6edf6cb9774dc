#include "tools/bus/BusLink.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "net/SvcAddress.h"
#include "tools/base/ErrorText.h"

namespace {

// Seconds between two checks of the interface, and after the system has told of a change: a host
// with many interfaces may tell of many.
const double LOOK_EVERY = 1;
const double LOOK_SOON = 0.05;
// If the program is awake then: the system may have failed to tell.
const double LOOK_ANYWAY = 10;
const int MOST_AT_A_TIME = 64;  // datagrams that one call reads
const int ROOM = 4 << 20;       // bytes: some seconds of a busy bus

std::string SecondsText(double seconds) {
    char text[32];
    snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

[[noreturn]] void ThrowSendFailure(unsigned long code, bool reliable, double wait, int err) {
    switch (code) {
        case CRUdpLayer3Client::REFUSED:
            throw BusError("refused by the receiver");
        case CRUdpLayer3Client::TIMED_OUT:
            if (reliable) {
                throw BusError("no acknowledgement within " + SecondsText(wait),
                               BusError::Kind::NoAcknowledgement);
            }
            break;
        case CRUdpLayer3Client::TOO_LARGE:
            throw BusError("not sent: the message is too large");
        default:
            break;
    }
    throw BusError("not sent: " + ErrorText(err));
}

// By the interface's number: its address may be gone, or moved to another one.
void LeaveGroup(int sock, uint32_t group, unsigned int index) {
    ip_mreqn request = {};
    request.imr_multiaddr.s_addr = htonl(group);
    request.imr_ifindex = static_cast<int>(index);
    setsockopt(sock, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request);
}

// When the socket's next datagram arrived, in ns since 1970; 0: the system does not tell.
int64_t ArrivalOf(int sock) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))] = {};
    msghdr header = {};
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    timespec time = {};
    if (recvmsg(sock, &header, MSG_PEEK | MSG_DONTWAIT) >= 0) {
        const cmsghdr* const stamp = CMSG_FIRSTHDR(&header);
        if (stamp != nullptr && stamp->cmsg_type == SCM_TIMESTAMPNS) {
            memcpy(&time, CMSG_DATA(stamp), sizeof time);
        }
    }
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

// Whether two checks found the same interface, as far as it matters to the sockets.
bool IsSame(const Interface& a, const Interface& b) {
    return a.index == b.index && a.address == b.address;
}

}  // namespace

void BusLink::Overhearer::ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                                         bool& positive) {
    CRUdpLayer3Server::ProcessMessage(msg, deliver, sendAck, positive);
    sendAck = false;
}

BusLink::BusLink(const BusSettings& settings)
    : m_settings(settings),
      m_interface(FindInterface(settings.iface, settings.group)),
      m_client(0, 0) {
    in_addr ignored = {};
    if (!settings.iface.empty() && m_interface.address == 0) {
        const bool is_address = inet_pton(AF_INET, settings.iface.c_str(), &ignored) == 1;
        throw BusError("interface " + settings.iface + ": " +
                       ErrorText(m_interface.index != 0 || is_address ? EADDRNOTAVAIL : ENODEV));
    }
    OpenClient();
    m_client.SetCliOptions(4, static_cast<unsigned long>(settings.wait * 1000), true, 200, nullptr,
                           false);
}

// Without a named interface, the system's routes decide for each message.
void BusLink::OpenClient() {
    const std::string address = HostText(ntohl(m_interface.address));
    if (!m_client.Open(m_settings.iface.empty() ? nullptr : address.c_str(), nullptr)) {
        throw BusError("interface " + address + ": " + ErrorText(errno));
    }
}

void BusLink::Listen(Hear what) {
    OpenServer(m_reports, m_settings.listen_port, nullptr);
    if (what == Hear::ReportsAndRequests && m_settings.send_port != m_settings.listen_port) {
        // Bound to the group: datagrams to this host's own address are for a daemon on it.
        OpenServer(m_requests, m_settings.send_port, HostText(m_settings.group).c_str());
    }
    // If the routes lead to the loopback interface, the system reports no changes of it.
    m_up = m_interface.IsUsable();
    if (m_interface.index != 0) {
        m_news.Open();
        LookLater();
    }
}

void BusLink::OpenServer(CRUdpLayer3Server& server, uint16_t port, const char* host) {
    if (!server.Open(port, host, nullptr, nullptr)) {
        throw BusError("can't listen on port " + std::to_string(port) + ": " + ErrorText(errno));
    }
    // Without this, Linux delivers the groups that any other program of this host has joined.
    const int off = 0;
    const int on = 1;
    setsockopt(server.GetSocket(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    setsockopt(server.GetSocket(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    setsockopt(server.GetSocket(), SOL_SOCKET, SO_RCVBUF, &ROOM, sizeof ROOM);
    Join(server);
    Trace("listening to " + HostText(m_settings.group) + " port " + std::to_string(port));
}

void BusLink::Join(CRUdpLayer3Server& server) {
    if (!server.JoinMcastGroup(htonl(m_settings.group), m_interface.address) &&
        errno != EADDRINUSE) {  // joined already
        const std::string hint = m_settings.iface.empty() ? " (name an interface with -i)" : "";
        throw BusError("can't join " + HostText(m_settings.group) + ": " + ErrorText(errno) + hint);
    }
}

void BusLink::Send(const CMessage& message, uint16_t port, bool reliable) {
    const uint32_t host = m_settings.to.value_or(m_settings.group);
    Trace("sending to " + HostText(host) + " port " + std::to_string(port));
    errno = 0;
    if (!m_client.SendMsg(CSvcAddress(host, port), &message,
                          reliable ? CRUdpLayer3Client::MESSAGE : CRUdpLayer3Client::DATAGRAM)) {
        ThrowSendFailure(m_client.GetLastError(), reliable, m_settings.wait, errno);
    }
}

std::vector<int> BusLink::Descriptors() const {
    std::vector<int> descriptors;
    for (const CRUdpLayer3Server* server :
         {&m_reports, static_cast<const CRUdpLayer3Server*>(&m_requests)}) {
        if (server->GetSocket() != -1) {
            descriptors.push_back(server->GetSocket());
        }
    }
    if (m_news.IsOpen()) {
        descriptors.push_back(m_news.Get());
    }
    return descriptors;
}

uint64_t BusLink::Lost() const {
    uint64_t lost = 0;
    for (const int descriptor : {m_reports.GetSocket(), m_requests.GetSocket()}) {
        uint32_t figures[SK_MEMINFO_VARS] = {};
        socklen_t size = sizeof figures;
        if (getsockopt(descriptor, SOL_SOCKET, SO_MEMINFO, figures, &size) == 0) {
            lost += figures[SK_MEMINFO_DROPS];
        }
    }
    return lost;
}

bool BusLink::Take(Traffic& traffic) {
    for (int i = 0; i < MOST_AT_A_TIME; ++i) {
        pollfd fds[] = {{m_reports.GetSocket(), POLLIN, 0}, {m_requests.GetSocket(), POLLIN, 0}};
        if (poll(fds, 2, 0) <= 0) {
            return false;
        }
        const bool requests = fds[1].revents != 0 && (fds[0].revents == 0 || AreRequestsFirst());
        (requests ? m_request_arrival : m_report_arrival).reset();
        if (requests ? TakeFrom(m_requests, m_settings.send_port, traffic)
                     : TakeFrom(m_reports, m_settings.listen_port, traffic)) {
            return true;
        }
    }
    return false;
}

// If both sockets have something: a write comes before the report that it causes.
bool BusLink::AreRequestsFirst() {
    if (!m_report_arrival) {
        m_report_arrival = ArrivalOf(m_reports.GetSocket());
    }
    if (!m_request_arrival) {
        m_request_arrival = ArrivalOf(m_requests.GetSocket());
    }
    return *m_request_arrival < *m_report_arrival;
}

// Reads one datagram. False if it contained no message for us.
bool BusLink::TakeFrom(CRUdpLayer3Server& server, uint16_t port, Traffic& traffic) {
    traffic.message.SetId(0);  // a packet without a payload is delivered and has no identifier
    if (!server.WaitForMsg(&traffic.message, 0)) {
        const unsigned long code = server.GetLastError();
        if (code == CRUdpLayer3Server::READ_FAILED) {
            throw BusError("can't read from the bus: " + ErrorText(errno));
        }
        if (code != CRUdpLayer3Server::TIMED_OUT) {
            Trace("ignored a packet without a message (error " + std::to_string(code) + ")");
            if (m_settings.ignored) {
                m_settings.ignored();
            }
        }
        return false;
    }
    traffic.time = TimeOfDay();
    traffic.host = HostText(static_cast<uint32_t>(traffic.message.GetHost()));
    traffic.port = port;
    traffic.tid = static_cast<uint32_t>(server.GetMsgBuffer()->GetMsgTID());
    return true;
}

std::optional<BusLink::Change> BusLink::Tend() {
    if (m_news.IsOpen() && m_news.Take()) {
        m_look = std::min(m_look, After(LOOK_SOON));
    }
    if (m_news.IsOpen() && Now() >= Later(m_looked, LOOK_ANYWAY)) {
        m_look = Now();
    }
    if (Now() < m_look) {
        return std::nullopt;
    }
    m_looked = Now();
    m_look = After(LOOK_EVERY);
    try {
        std::optional<Change> change = Look();
        LookLater();
        return change;
    } catch (const BusError& error) {
        Trace(error.what());
        return std::nullopt;
    }
}

// While the interface is away, not all that it needs is told of.
void BusLink::LookLater() {
    m_look = m_up && m_news.IsOpen() ? TimePoint::max() : After(LOOK_EVERY);
}

std::optional<BusLink::Change> BusLink::Look() {
    const Interface found = FindInterface(m_settings.iface, m_settings.group);
    if (m_up && !found.IsUsable()) {
        m_up = false;
        return Change{false, DownText(found)};
    }
    if (!found.IsUsable() || (m_up && IsSame(found, m_interface))) {
        return std::nullopt;
    }
    const bool was_up = std::exchange(m_up, Rejoin(found));
    if (!m_up) {
        return std::nullopt;
    }
    return Change{true, found.name + (was_up ? " changed" : " is up again")};
}

// False if that was not possible yet.
bool BusLink::Rejoin(const Interface& found) {
    const Interface before = std::exchange(m_interface, found);
    try {
        for (CRUdpLayer3Server* server :
             {&m_reports, static_cast<CRUdpLayer3Server*>(&m_requests)}) {
            if (server->GetSocket() != -1) {
                LeaveGroup(server->GetSocket(), m_settings.group, before.index);
                Join(*server);
            }
        }
        OpenClient();
        return true;
    } catch (const BusError& error) {
        Trace(error.what());
        return false;
    }
}

// If the routes chose the interface, its name is more helpful than that the route is gone.
std::string BusLink::DownText(const Interface& found) const {
    const Interface now =
        m_settings.iface.empty() ? FindInterface(m_interface.name, m_settings.group) : found;
    if (now.index == 0) {
        return m_interface.name + " is gone";
    }
    if (!now.up) {
        return now.name + " is down";
    }
    return now.address == 0 ? now.name + " has no address"
                            : "no route to " + HostText(m_settings.group);
}

BusLink::Event BusLink::Wait(Traffic& traffic, TimePoint deadline, int other) {
    for (;;) {
        pollfd fds[] = {{other, POLLIN, 0},
                        {m_reports.GetSocket(), POLLIN, 0},
                        {m_requests.GetSocket(), POLLIN, 0},
                        {m_news.Get(), POLLIN, 0}};
        const int ready = poll(fds, 4, MillisecondsUntil(std::min(deadline, m_look)));
        if (ready < 0 && errno != EINTR) {
            throw BusError("poll: " + ErrorText(errno));
        }
        if (ready > 0 && fds[0].revents != 0) {
            return Event::Other;
        }
        if (const std::optional<Change> change = Tend()) {
            m_change = *change;
            return Event::Changed;
        }
        if (ready > 0 && Take(traffic)) {
            return Event::Heard;
        }
        if (Now() >= deadline) {
            return Event::TimedOut;
        }
    }
}

void BusLink::Trace(const std::string& text) const {
    if (m_settings.trace) {
        m_settings.trace(text);
    }
}
