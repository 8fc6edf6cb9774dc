// Connections to TQRD and to remote servers.

#include <arpa/inet.h>

#include <cerrno>
#include <map>

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

Probe Try(const CSvcAddress& server, milliseconds limit) {
    TqrdClient client;
    std::string line;
    client.Connect(server, limit);
    while (client.IsOpen() && !client.IsConnected()) {
        client.Wait(line, client.Deadline());
        client.Serve();
    }
    return {client.Error(), client.Problem()};
}

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
        "start TQRD, or correct -r in /etc/default/orvex; orvex(8), \"TQRD can "
        "not be reached\"";
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
        findings.push_back(
            {Severity::Warning, "TQRD", place + " takes connections but tells no channels", mend});
    } else {
        findings.push_back(
            {Severity::Well, "TQRD", (is_seen ? "connected to " : "there, at ") + place, ""});
    }
}

struct Remote {
    uint32_t ip;
    uint16_t port;
    std::string channels;
};

// The servers that channels follow, each once.
std::map<std::string, Remote> Remotes(const ChannelTable& table) {
    std::map<std::string, Remote> remotes;
    for (const int number : table.Find(KIND_REMOTE)) {
        const ChannelConfig& config = table.Channel(number).config;
        Remote& remote = remotes[RemoteServer(config)];
        remote.ip = config.ip;
        remote.port = config.port;
        remote.channels += (remote.channels.empty() ? "" : ", ") + std::to_string(number);
    }
    return remotes;
}

void ExamineRemote(const Facts& facts, const Remote& remote, milliseconds limit,
                   Findings& findings) {
    const SocketRow* const socket = facts.DaemonSocket(remote.ip, remote.port);
    const std::string place = EndpointText(remote.ip, remote.port);
    if (IsConnected(socket)) {
        findings.push_back({Severity::Well, "remote", "connected to " + place, ""});
    } else if (IsHanging(socket)) {
        findings.push_back(Hanging("remote", place));
    } else {
        const Probe probe = Try(CSvcAddress(ntohl(remote.ip), remote.port), limit);
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
    const auto remotes = Remotes(facts.answer.table);
    if (daemon->shows_sockets) {
        for (const auto& remote : remotes) {
            ExamineRemote(facts, remote.second, limit, findings);
        }
    }
    ExamineLimit(facts, !remotes.empty(), findings);
}
