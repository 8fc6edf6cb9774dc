// Connections to TQRD and to remote servers.

#include <arpa/inet.h>
#include <poll.h>

#include <cerrno>
#include <map>

#include "tools/base/Time.h"
#include "tools/doctor/Checks.h"
#include "tools/tqrd/TqrdClient.h"

namespace {

using std::chrono::milliseconds;

const int GOOD_SYN_RETRIES = 2;
const char* const LIMIT =
    "ORVEX_CONNECT_TIMEOUT=2 in /etc/default/orvex, or sysctl -w net.ipv4.tcp_syn_retries=2";

// Why a server can't be reached, found by trying.
struct Probe {
    int error = 0;
    std::string problem;
};

std::string Cause(const Probe& probe) {
    switch (probe.error) {
        case 0:
            return "it can be reached";
        case ECONNREFUSED:
            return "it refuses the connection: no server is running there";
        case ETIMEDOUT:
            return "it does not answer at all: its host is off, or a firewall drops packets";
        default:
            return probe.problem;
    }
}

bool IsHanging(const SocketRow* socket) {
    return socket != nullptr && socket->state == TCP_SYN_SENT;
}

bool IsConnected(const SocketRow* socket) {
    return socket != nullptr && socket->state == TCP_ESTABLISHED;
}

// A server that channels follow.
struct Remote {
    uint32_t ip = 0;
    uint16_t port = 0;
    std::string channels;
    TqrdClient client;  // that tries the server
};

// Each server once.
using Remotes = std::map<std::string, Remote>;

Remotes RemotesOf(const ChannelTable& table) {
    Remotes remotes;
    for (const int number : table.Find(KIND_REMOTE)) {
        const ChannelConfig& config = table.Channel(number).config;
        Remote& remote = remotes[RemoteServer(config)];
        remote.ip = config.ip;
        remote.port = config.port;
        remote.channels += (remote.channels.empty() ? "" : ", ") + std::to_string(number);
    }
    return remotes;
}

// Tries all servers that the daemon has no connection to at once: many may be down.
void Try(const Facts& facts, milliseconds limit, Remotes& remotes) {
    for (auto& [place, remote] : remotes) {
        const SocketRow* const socket = facts.DaemonSocket(remote.ip, remote.port);
        if (!IsConnected(socket) && !IsHanging(socket)) {
            remote.client.Connect(CSvcAddress(ntohl(remote.ip), remote.port), limit);
        }
    }
    const TimePoint end = Now() + limit;
    for (;;) {
        std::vector<pollfd> waiting;
        for (auto& [place, remote] : remotes) {
            remote.client.Serve();
            if (remote.client.IsOpen() && !remote.client.IsConnected()) {
                waiting.push_back({remote.client.GetDescriptor(), remote.client.Events(), 0});
            }
        }
        if (waiting.empty()) {
            return;
        }
        poll(waiting.data(), waiting.size(), MillisecondsUntil(end));
    }
}

std::string Place(const CSvcAddress& address) {
    return EndpointText(htonl(static_cast<uint32_t>(address.GetHost())), address.GetPort());
}

Finding Hanging(const char* subject, const std::string& place) {
    return {Severity::Critical, subject,
            place +
                " does not answer, and the daemon hangs in connecting to it (SYN-SENT): nothing is "
                "served until that ends",
            std::string("is its host on, does a firewall drop packets? ") + LIMIT};
}

void ExamineControl(const Facts& facts, Findings& findings) {
    const std::string place = Place(facts.tqrd);
    const SocketRow* const socket = facts.DaemonSocket(
        htonl(static_cast<uint32_t>(facts.tqrd.GetHost())), facts.tqrd.GetPort());
    const bool is_seen = facts.Daemon() != nullptr && facts.Daemon()->shows_sockets;
    const TableAnswer& answer = facts.answer;
    const char* const mend =
        "start TQRD, or correct -r in /etc/default/orvex; orvex(8), \"TQRD cannot "
        "be reached\"";
    if (IsHanging(socket)) {
        findings.push_back(Hanging("TQRD", place));
    } else if (!answer.has_answered && answer.error != 0) {
        findings.push_back({Severity::Critical, "TQRD",
                            place + " can't be reached, so nothing is served: " +
                                Cause({answer.error, answer.problem}),
                            mend});
    } else if (is_seen && !IsConnected(socket)) {
        findings.push_back({Severity::Critical, "TQRD",
                            "the daemon has no connection to " + place + ", but it can be reached",
                            "wait 4 seconds and check again; orvex(8), TROUBLESHOOTING"});
    } else if (!answer.has_answered) {
        findings.push_back({Severity::Warning, "TQRD",
                            place + " accepts connections but sends no channels", mend});
    } else {
        findings.push_back(
            {Severity::Well, "TQRD", (is_seen ? "connected to " : "there, at ") + place, ""});
    }
}

void ExamineRemote(const Facts& facts, const Remote& remote, Findings& findings) {
    const SocketRow* const socket = facts.DaemonSocket(remote.ip, remote.port);
    const std::string place = EndpointText(remote.ip, remote.port);
    if (IsConnected(socket)) {
        findings.push_back({Severity::Well, "remote", "connected to " + place, ""});
    } else if (IsHanging(socket)) {
        findings.push_back(Hanging("remote", place));
    } else {
        const Probe probe = {remote.client.Error(), remote.client.Problem()};
        findings.push_back({Severity::Critical, "remote",
                            "no connection to " + place + ", which drives output " +
                                remote.channels + ": " + Cause(probe),
                            probe.error == 0 ? "wait 54 seconds: the daemon retries"
                                             : "orvex(8), \"A remote input is not followed\""});
    }
}

// Hosts that don't answer stop the daemon for as long as the system tries.
void ExamineLimit(const Facts& facts, bool is_needed, Findings& findings) {
    const RunningProgram* const daemon = facts.Daemon();
    if (!daemon->Variable("ORVEX_CONNECT_TIMEOUT").empty()) {
        findings.push_back(
            {Severity::Well, "limit",
             "connecting takes " + daemon->Variable("ORVEX_CONNECT_TIMEOUT") + " s at most", ""});
    } else if (facts.syn_retries > GOOD_SYN_RETRIES) {
        const bool is_known = !daemon->environment.empty();  // that no limit is set
        findings.push_back({is_needed && is_known ? Severity::Warning : Severity::Note, "limit",
                            "tcp_syn_retries is " + std::to_string(facts.syn_retries) +
                                ": a server that does not answer stops everything for a long time",
                            LIMIT});
    } else {
        findings.push_back({Severity::Well, "limit",
                            "tcp_syn_retries is " + std::to_string(facts.syn_retries), ""});
    }
}

}  // namespace

void ExamineServers(const Facts& facts, milliseconds limit, Findings& findings) {
    ExamineControl(facts, findings);
    const RunningProgram* const daemon = facts.Daemon();
    if (daemon == nullptr) {
        return;
    }
    Remotes remotes = RemotesOf(facts.answer.table);
    if (daemon->shows_sockets) {
        Try(facts, limit, remotes);
        for (const auto& [place, remote] : remotes) {
            ExamineRemote(facts, remote, findings);
        }
    }
    ExamineLimit(facts, !remotes.empty(), findings);
}
