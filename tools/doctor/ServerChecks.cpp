// Connections to TQRD and to remote servers.

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <set>

#include "protocol/numbers.h"
#include "tools/base/Time.h"
#include "tools/doctor/Checks.h"
#include "tools/tqrd/SourceText.h"
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
    std::set<int> unanswered;  // the inputs that they follow, until the server tells their state
    size_t input_count = 0;
    TqrdClient client;  // that asks the server
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
        remote.unanswered.insert(RemoteInput(config));
        remote.input_count = remote.unanswered.size();
    }
    return remotes;
}

void TakeLines(Remote& remote) {
    for (std::string line; remote.client.Next(line);) {
        int input = 0;
        if (sscanf(line.c_str(), "GPI %d ", &input) == 1) {
            remote.unanswered.erase(input);
        }
    }
}

// Asks all servers at once, as many may be down, for the inputs that channels follow, on
// connections of our own: these tell of every input that one subscribes to.
void Ask(const Facts& facts, milliseconds limit, Remotes& remotes) {
    for (auto& [place, remote] : remotes) {
        if (!IsHanging(facts.DaemonSocket(remote.ip, remote.port))) {
            remote.client.Connect(CSvcAddress(ntohl(remote.ip), remote.port), limit);
            for (const int input : remote.unanswered) {
                remote.client.Send("ADD GPI " + std::to_string(input));
            }
        }
    }
    const TimePoint end = Now() + limit;
    for (;;) {
        std::vector<pollfd> waiting;
        for (auto& [place, remote] : remotes) {
            remote.client.Serve();
            TakeLines(remote);
            if (remote.client.IsOpen() && !remote.unanswered.empty()) {
                waiting.push_back({remote.client.GetDescriptor(), remote.client.Events(), 0});
            }
        }
        if (waiting.empty() || Now() >= end) {
            return;
        }
        poll(waiting.data(), waiting.size(), MillisecondsUntil(end));
    }
}

std::string Join(const std::set<int>& numbers) {
    std::string text;
    for (const int number : numbers) {
        text += (text.empty() ? "" : ", ") + std::to_string(number);
    }
    return text;
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

// TQRD on this host that has stopped working: why that is certain, and the remedy. None for one
// that may work, or is on another host.
std::optional<Finding> HangingControl(const Facts& facts) {
    const std::string text = Place(facts.tqrd) + " hangs, so nothing is served: ";
    for (const SocketRow& row : facts.later_tcp) {
        if (row.state != TCP_LISTEN || row.local_port != facts.tqrd.GetPort()) {
            continue;
        }
        const RunningProgram* const owner = facts.OwnerOf(row);
        if (owner != nullptr && owner->is_stopped) {
            return Finding{Severity::Critical, "TQRD",
                           text + ProcessText(*owner) + ", is stopped by a signal or a debugger",
                           "kill -CONT " + std::to_string(owner->pid)};
        }
        if (row.unread > 0) {  // for this state: connections that it has not accepted
            return Finding{
                Severity::Critical, "TQRD", text + "it accepts no connections",
                "restart TQRD" + (owner == nullptr ? "" : " (" + ProcessText(*owner) + ")")};
        }
    }
    return std::nullopt;
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
    } else if (const auto hanging = HangingControl(facts); hanging && !answer.has_answered) {
        findings.push_back(*hanging);
    } else if (is_seen && !IsConnected(socket)) {
        findings.push_back({Severity::Critical, "TQRD",
                            "the daemon has no connection to " + place + ", but it can be reached",
                            "wait 4 seconds and check again; orvex(8), TROUBLESHOOTING"});
    } else if (!answer.has_answered) {
        findings.push_back({Severity::Warning, "TQRD",
                            place + " accepts connections but sends no channels: it hangs, or "
                                    "has none",
                            mend});
    } else {
        findings.push_back(
            {Severity::Well, "TQRD", (is_seen ? "connected to " : "there, at ") + place, ""});
    }
}

bool HasNotAnswered(const Remote& remote) {
    return remote.unanswered.size() == remote.input_count;
}

// The answer of a server that the daemon is connected to.
Finding AnswerOf(const Remote& remote, const std::string& place) {
    const std::string drives = place + ", which drives output " + remote.channels + ", ";
    if (remote.unanswered.empty()) {
        return {Severity::Well, "remote", "connected to " + place, ""};
    }
    if (!HasNotAnswered(remote)) {
        return {Severity::Warning, "remote",
                drives + "does not tell the state of input " + Join(remote.unanswered),
                "correct SRCA in TQRD, if that server has no such input"};
    }
    if (remote.client.IsOpen()) {
        return {Severity::Critical, "remote",
                drives + "hangs: it is connected, but does not answer", "restart that server"};
    }
    if (remote.client.Error() == ETIMEDOUT || remote.client.Error() == EHOSTUNREACH) {
        return {Severity::Critical, "remote",
                drives + "has vanished: its connection stands, but its host does not answer",
                "is its host on? ORVEX_PEER_TIMEOUT=30 in /etc/default/orvex"};
    }
    return {Severity::Note, "remote",
            "connected to " + place +
                "; it could not be asked on a second connection: " + remote.client.Problem(),
            ""};
}

void ExamineRemote(const Facts& facts, const Remote& remote, Findings& findings) {
    const SocketRow* const socket = facts.DaemonSocket(remote.ip, remote.port);
    const std::string place = EndpointText(remote.ip, remote.port);
    if (IsConnected(socket)) {
        findings.push_back(AnswerOf(remote, place));
    } else if (IsHanging(socket)) {
        findings.push_back(Hanging("remote", place));
    } else {
        const Probe probe = {remote.client.Error(), remote.client.Problem()};
        const bool is_silent = remote.client.IsOpen() && HasNotAnswered(remote);
        findings.push_back({Severity::Critical, "remote",
                            "no connection to " + place + ", which drives output " +
                                remote.channels + ": " +
                                (is_silent ? "it accepts one, but does not answer" : Cause(probe)),
                            probe.error == 0 ? "the daemon tries again within " +
                                                   std::to_string(2 * SWEEP_PERIOD_S) + " seconds"
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
    const std::string& problems = facts.answer.table.Problems();
    if (!problems.empty()) {
        findings.push_back({Severity::Critical, "pins",
                            "TQRD has pins that don't work: " + problems,
                            "orvex-gpio --check says more; orvex-gpio(8), DIAGNOSTICS"});
    }
    const RunningProgram* const daemon = facts.Daemon();
    if (daemon == nullptr) {
        return;
    }
    Remotes remotes = RemotesOf(facts.answer.table);
    if (daemon->shows_sockets) {
        Ask(facts, limit, remotes);
        for (const auto& [place, remote] : remotes) {
            ExamineRemote(facts, remote, findings);
        }
    }
    ExamineLimit(facts, !remotes.empty(), findings);
}
