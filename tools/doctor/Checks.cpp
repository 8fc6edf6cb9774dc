#include "tools/doctor/Checks.h"

#include <arpa/inet.h>

#include <algorithm>

#include "protocol/numbers.h"
#include "tools/doctor/Carried.h"

namespace {

const char* const RESTART = "systemctl restart orvex";

std::string ProcessText(const RunningProgram& program) {
    return program.name + ", process " + std::to_string(program.pid);
}

std::string OwnerText(const Facts& facts, const SocketRow& row) {
    const RunningProgram* const owner = facts.OwnerOf(row);
    return owner == nullptr ? "a program not visible without root" : ProcessText(*owner);
}

std::vector<const SocketRow*> OnBusPort(const std::vector<SocketRow>& rows) {
    std::vector<const SocketRow*> found;
    for (const SocketRow& row : rows) {
        if (row.local_port == BUS_PORT) {
            found.push_back(&row);
        }
    }
    return found;
}

bool IsDaemon(const RunningProgram* program, const Facts& facts) {
    const auto daemons = facts.Daemons();
    return std::find(daemons.begin(), daemons.end(), program) != daemons.end();
}

void ExamineDaemon(const Facts& facts, Findings& findings) {
    const auto daemons = facts.Daemons();
    if (daemons.empty()) {
        const std::string before =
            facts.pid_file.empty() ? "" : "; it was process " + facts.pid_file + " once";
        findings.push_back({Severity::Critical, "daemon", "not running" + before,
                            "systemctl start orvex; journalctl -u orvex -n 20"});
    } else if (daemons.size() > 1) {
        std::string text = "more than one is running, so everything happens twice:";
        for (const RunningProgram* daemon : daemons) {
            text += " " + std::to_string(daemon->pid);
        }
        findings.push_back(
            {Severity::Critical, "daemon", text, "end the one started by hand: kill PROCESS"});
    } else {
        findings.push_back({Severity::Well, "daemon", "running, " + ProcessText(*daemons[0]), ""});
        if (!daemons[0]->shows_sockets) {
            findings.push_back({Severity::Note, "daemon",
                                "its connections and its environment are not visible without root",
                                "sudo orvexctl doctor"});
        }
    }
}

void ExaminePort(const Facts& facts, Findings& findings) {
    std::string others;
    bool has_daemon = false;
    for (const SocketRow* row : OnBusPort(facts.udp)) {
        const RunningProgram* const owner = facts.OwnerOf(*row);
        if (IsDaemon(owner, facts) || (owner == nullptr && facts.Daemon() != nullptr &&
                                       !facts.Daemon()->shows_sockets && !has_daemon)) {
            has_daemon = true;
        } else {
            others += (others.empty() ? "" : "; ") + OwnerText(facts, *row);
        }
    }
    if (!others.empty()) {
        findings.push_back({facts.Daemon() == nullptr ? Severity::Critical : Severity::Warning,
                            "port 2060",
                            "taken by another program (" + others + ")" +
                                (facts.Daemon() == nullptr
                                     ? ": the daemon can't start"
                                     : ": what is sent to this host alone reaches one of the two"),
                            "end that program: ss -lunp sport = :2060"});
    } else if (has_daemon) {
        const bool is_seen = facts.Daemon()->shows_sockets;
        findings.push_back(
            {is_seen ? Severity::Well : Severity::Note, "port 2060",
             is_seen ? "the daemon's alone" : "taken once; by whom is not visible without root",
             ""});
    } else if (facts.Daemon() != nullptr) {
        findings.push_back(
            {Severity::Critical, "port 2060", "the daemon does not listen there", RESTART});
    }
}

// Why the interface can't be used; empty if it can.
std::string InterfaceProblem(const Facts& facts, const std::string& device) {
    const std::optional<uint32_t> address = facts.AddressOf(device);
    if (!address) {
        return device + " is not there";
    }
    return *address == 0 ? device + " has no address" : "";
}

// The interface of the bus: the one whose address TQRD sends, or eth0. Empty if there is none.
std::string BusDevice(const Facts& facts, const ExpectedBus& bus, Findings& findings) {
    const std::optional<uint32_t> named = facts.answer.table.InterfaceAddress();
    const std::string problem = InterfaceProblem(facts, bus.device);
    const auto mend = [&bus](const std::string& address) {
        return "ip addr add " + address + "/24 dev " + bus.device + "; " + RESTART;
    };
    if (named.value_or(0) != 0) {
        std::string device = facts.DeviceOf(*named);
        if (device.empty()) {
            findings.push_back({Severity::Critical, "interface",
                                "TQRD names " + IpText(*named) + ", which no interface has" +
                                    (problem.empty() ? "" : ": " + problem),
                                problem.empty() ? "correct NIC_IPADDR in TQRD, or: ip addr show"
                                                : mend(IpText(*named))});
        } else {
            findings.push_back({Severity::Well, "interface",
                                device + ", " + IpText(*named) + " as TQRD says", ""});
        }
        return device;
    }
    if (!problem.empty()) {
        findings.push_back({Severity::Critical, "interface",
                            problem + ": the daemon can't join the group on it", mend("ADDRESS")});
        return {};
    }
    findings.push_back({Severity::Well, "interface",
                        bus.device + ", " + IpText(*facts.AddressOf(bus.device)), ""});
    return bus.device;
}

void ExamineGroup(const Facts& facts, const ExpectedBus& bus, const std::string& device,
                  Findings& findings) {
    const std::string group = IpText(bus.group);
    const std::string option = facts.Daemon()->Option("-gpioip");
    if (!option.empty() && option != group) {
        findings.push_back({Severity::Critical, "group",
                            "the daemon serves " + option + ", not " + group,
                            "correct -gpioip in /etc/default/orvex; " + std::string(RESTART) +
                                " (or give the intended group: -g " + option + ")"});
        return;
    }
    std::string elsewhere;
    for (const Membership& membership : facts.memberships) {
        if (membership.group == bus.group && membership.device == device) {
            findings.push_back({Severity::Well, "group", group + " is joined on " + device, ""});
            return;
        }
        if (membership.group == bus.group) {
            elsewhere += " " + membership.device;
        }
    }
    findings.push_back({Severity::Critical, "group",
                        group + " is not joined on " + (device.empty() ? bus.device : device) +
                            (elsewhere.empty() ? "" : ", but on" + elsewhere) +
                            ": nothing that is sent to it arrives",
                        std::string(RESTART) + "; orvex(8), DIAGNOSTICS, \"join\""});
}

// Bytes that waited at both checks in the daemon's connections.
unsigned long WaitingInConnections(const Facts& facts) {
    unsigned long waiting = 0;
    for (const SocketRow& row : facts.tcp) {
        for (const SocketRow& later : facts.later_tcp) {
            if (row.inode == later.inode && facts.Daemon()->sockets.count(row.inode) != 0) {
                waiting += std::min(row.unread, later.unread);
            }
        }
    }
    return waiting;
}

// Data that waits at both checks is not being read.
void ExamineQueues(const Facts& facts, Findings& findings) {
    const unsigned long in_connections = WaitingInConnections(facts);
    unsigned long waiting = 0;
    unsigned long lost = 0;
    unsigned long lost_now = 0;
    for (const SocketRow* later : OnBusPort(facts.later_udp)) {
        for (const SocketRow* row : OnBusPort(facts.udp)) {
            if (row->inode == later->inode) {
                waiting += std::min(row->unread, later->unread);
                lost += later->drops;
                lost_now += later->drops - row->drops;
            }
        }
    }
    if (waiting > 0 || in_connections > 0 || lost_now > 0) {
        // A consequence of an earlier finding is no problem of its own.
        const bool is_explained = std::any_of(
            findings.begin(), findings.end(),
            [](const Finding& finding) { return finding.severity == Severity::Critical; });
        findings.push_back({is_explained ? Severity::Note : Severity::Warning, "queue",
                            std::to_string(waiting) + " bytes wait on port 2060 and " +
                                std::to_string(in_connections) + " in connections, and " +
                                std::to_string(lost_now) +
                                " datagrams were lost just now: the daemon is busy, or waits for a "
                                "server",
                            "orvex(8), \"A remote server does not answer at all\"; "
                            "net.core.rmem_default"});
    } else if (lost > 0) {
        findings.push_back({Severity::Note, "queue",
                            std::to_string(lost) + " datagrams were lost since the daemon started",
                            "increase net.core.rmem_default; orvex(8), OPERATION"});
    } else {
        findings.push_back({Severity::Well, "queue", "nothing waits, nothing was lost", ""});
    }
}

void ExamineAnswer(const Facts& facts, Findings& findings) {
    if (!facts.bus.was_asked) {
        findings.push_back({Severity::Note, "read", "not asked: " + facts.bus.problem, ""});
    } else if (facts.bus.has_answered) {
        findings.push_back({Severity::Well, "read", "the daemon answers on the bus", ""});
    } else {
        findings.push_back(
            {Severity::Critical, "read",
             "the daemon does not answer on the bus" +
                 (facts.bus.problem.empty() ? "" : ": " + facts.bus.problem),
             "solve the problems above first; then orvex(8), \"Reports or replies do not "
             "arrive at peers\""});
    }
}

// The minimum that a connection with subscriptions has carried: the questions after connecting, the
// configuration, the subscriptions and their answers.
Carried LeastCarried(const ChannelTable& table) {
    Carried least = {sizeof "SET\nCFG GPO\n" - 1, 0};
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        const ChannelInfo& channel = table.Channel(number);
        least.received += channel.is_configured ? channel.line.size() + 1 : 0;
        if (channel.config.proto == KIND_BUS) {
            const std::string text = "GPI " + std::to_string(number);
            least.sent += ("ADD " + text + "\n").size();
            least.received +=
                channel.input.empty() ? 0 : (text + " " + channel.input + "\n").size();
        }
    }
    return least;
}

// Whether TQRD, if on this host, was started after the daemon.
bool IsTqrdNewer(const Facts& facts) {
    for (const SocketRow& row : facts.tcp) {
        if (row.state == TCP_LISTEN && row.local_port == facts.tqrd.GetPort()) {
            const RunningProgram* const owner = facts.OwnerOf(row);
            return owner != nullptr && owner->started > facts.Daemon()->started;
        }
    }
    return false;
}

void ExamineInputs(const Facts& facts, Findings& findings) {
    const ChannelTable& table = facts.answer.table;
    const SocketRow* const control = facts.DaemonSocket(
        htonl(static_cast<uint32_t>(facts.tqrd.GetHost())), facts.tqrd.GetPort());
    if (table.Find(KIND_BUS).empty() || control == nullptr) {
        return;
    }
    const std::optional<Carried> carried = ReadCarried(control->inode);
    const Carried least = LeastCarried(table);
    const bool subscribes_again = facts.Daemon()->Variable("ORVEX_RESUBSCRIBE") == "yes";
    const std::string mend =
        std::string(RESTART) + "; for the future ORVEX_RESUBSCRIBE=yes in /etc/default/orvex";
    if (carried && (carried->sent < least.sent || carried->received < least.received)) {
        findings.push_back({Severity::Critical, "inputs",
                            "not subscribed at TQRD: it was restarted, and the daemon did not "
                            "subscribe again, so inputs are no longer reported",
                            mend});
    } else if (!facts.bus.stale_inputs.empty()) {
        std::string text =
            "the daemon's state differs from that of TQRD, so the subscription is "
            "lost: input";
        for (const int number : facts.bus.stale_inputs) {
            text += " " + std::to_string(number);
        }
        findings.push_back({Severity::Critical, "inputs", text, mend});
    } else if (!subscribes_again && IsTqrdNewer(facts)) {
        findings.push_back({Severity::Warning, "inputs",
                            "TQRD was started after the daemon, which does not subscribe again: "
                            "if they were connected before, inputs are no longer reported",
                            mend});
    } else if (facts.bus.has_answered) {
        findings.push_back({Severity::Well, "inputs", "the daemon's states are those of TQRD", ""});
    } else {
        findings.push_back(
            {Severity::Note, "inputs", "whether they are subscribed is not visible", ""});
    }
}

}  // namespace

Findings Examine(const Facts& facts, const ExpectedBus& bus, std::chrono::milliseconds limit) {
    Findings findings;
    ExamineDaemon(facts, findings);
    ExaminePort(facts, findings);
    const std::string device = BusDevice(facts, bus, findings);
    if (facts.Daemon() != nullptr) {
        ExamineGroup(facts, bus, device, findings);
    }
    ExamineServers(facts, limit, findings);
    if (facts.Daemon() != nullptr) {
        ExamineQueues(facts, findings);
        ExamineAnswer(facts, findings);
        ExamineInputs(facts, findings);
    }
    return findings;
}
