#include "tools/ctl/BusLink.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <system_error>

#include "net/SvcAddress.h"
#include "tools/base/ErrorText.h"
#include "tools/ctl/ExitStatus.h"

namespace {

// The address of an interface, given itself or the interface's name; network byte order.
uint32_t FindInterface(const std::string& text) {
    in_addr address = {};
    if (text.empty() || inet_pton(AF_INET, text.c_str(), &address) == 1) {
        return address.s_addr;
    }
    ifreq request = {};
    text.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_addr.sa_family = AF_INET;
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = text.size() < sizeof request.ifr_name ? ioctl(sock, SIOCGIFADDR, &request)
                                                             : (errno = ENODEV, -1);
    const int err = errno;
    close(sock);
    if (result != 0) {
        throw Failure(STATUS_FAILED, "interface " + text + ": " + ErrorText(err));
    }
    sockaddr_in found = {};
    memcpy(&found, &request.ifr_addr, sizeof found);
    return found.sin_addr.s_addr;
}

// For poll(), rounded up; -1 without a limit.
int MillisecondsUntil(TimePoint deadline) {
    using namespace std::chrono;
    if (deadline == TimePoint::max()) {
        return -1;
    }
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

std::string SecondsText(double seconds) {
    char text[32];
    snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

[[noreturn]] void ThrowSendFailure(unsigned long code, bool reliable, double wait, int err) {
    switch (code) {
        case CRUdpLayer3Client::REFUSED:
            throw Failure(STATUS_FAILED, "refused by the receiver");
        case CRUdpLayer3Client::TIMED_OUT:
            if (reliable) {
                throw Failure(STATUS_NO_ANSWER, "no acknowledgement within " + SecondsText(wait));
            }
            break;
        case CRUdpLayer3Client::TOO_LARGE:
            throw Failure(STATUS_FAILED, "not sent: the message is too large");
        default:
            break;
    }
    throw Failure(STATUS_FAILED, "not sent: " + ErrorText(err));
}

}  // namespace

std::string HostText(uint32_t address) {
    const in_addr in = {htonl(address)};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

TimePoint After(double seconds) {
    using namespace std::chrono;
    return steady_clock::now() + duration_cast<steady_clock::duration>(duration<double>(seconds));
}

BusLink::BusLink(const BusSettings& settings, const Console& console)
    : m_settings(settings),
      m_console(console),
      m_iface(FindInterface(settings.iface)),
      m_client(0, 0) {
    const std::string address = HostText(ntohl(m_iface));
    if (!m_client.Open(m_iface == 0 ? nullptr : address.c_str(), nullptr)) {
        throw Failure(STATUS_FAILED, "interface " + address + ": " + ErrorText(errno));
    }
    m_client.SetCliOptions(4, static_cast<unsigned long>(settings.wait * 1000), true, 200, nullptr,
                           false);
}

void BusLink::Listen() {
    const std::string port = std::to_string(m_settings.listen_port);
    if (!m_server.Open(m_settings.listen_port, nullptr, nullptr, nullptr)) {
        throw Failure(STATUS_FAILED, "can't listen on port " + port + ": " + ErrorText(errno));
    }
    // Without this, Linux delivers the groups that any other program of this host has joined.
    const int off = 0;
    setsockopt(m_server.GetSocket(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
    const std::string group = HostText(m_settings.group);
    if (!m_server.JoinMcastGroup(htonl(m_settings.group), m_iface)) {
        const std::string hint = m_iface == 0 ? " (name an interface with -i)" : "";
        throw Failure(STATUS_FAILED, "can't join " + group + ": " + ErrorText(errno) + hint);
    }
    m_console.Detail("listening to " + group + " port " + port);
}

void BusLink::StopOnSignals() {
    try {
        m_signals.emplace();
    } catch (const std::system_error& error) {
        throw Failure(STATUS_FAILED, error.what());
    }
}

void BusLink::Send(const CMessage& message, uint16_t port, bool reliable) {
    const uint32_t host = m_settings.to.value_or(m_settings.group);
    m_console.Detail("sending to " + HostText(host) + " port " + std::to_string(port));
    errno = 0;
    if (!m_client.SendMsg(CSvcAddress(host, port), &message,
                          reliable ? CRUdpLayer3Client::MESSAGE : CRUdpLayer3Client::DATAGRAM)) {
        ThrowSendFailure(m_client.GetLastError(), reliable, m_settings.wait, errno);
    }
}

BusLink::Event BusLink::Wait(Traffic& traffic, TimePoint deadline) {
    for (;;) {
        pollfd fds[] = {{m_signals ? m_signals->Get() : -1, POLLIN, 0},
                        {m_server.GetSocket(), POLLIN, 0}};
        const int ready = poll(fds, 2, MillisecondsUntil(deadline));
        if (ready < 0 && errno != EINTR) {
            throw Failure(STATUS_FAILED, "poll: " + ErrorText(errno));
        }
        if (ready > 0 && fds[0].revents != 0) {
            return Event::Stopped;
        }
        if (ready > 0 && fds[1].revents != 0 && Receive(traffic)) {
            return Event::Heard;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return Event::TimedOut;
        }
    }
}

// Reads one datagram. False when it was no message for us.
bool BusLink::Receive(Traffic& traffic) {
    traffic.message.SetId(0);  // a packet without a payload is delivered and names none
    if (!m_server.WaitForMsg(&traffic.message, 0)) {
        const unsigned long code = m_server.GetLastError();
        if (code == CRUdpLayer3Server::READ_FAILED) {
            throw Failure(STATUS_FAILED, "can't read from the bus: " + ErrorText(errno));
        }
        if (code != CRUdpLayer3Server::TIMED_OUT) {
            m_console.Detail("passed over a packet without a message (error " +
                             std::to_string(code) + ")");
        }
        return false;
    }
    traffic.time = TimeOfDay();
    traffic.host = HostText(static_cast<uint32_t>(traffic.message.GetHost()));
    traffic.port = m_settings.listen_port;
    return true;
}
