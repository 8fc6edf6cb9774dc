#include "tools/doctor/Checks.h"

#include <arpa/inet.h>

#include <algorithm>
#include <filesystem>

#include "protocol/numbers.h"
#include "tools/base/LineBuffer.h"
#include "tools/doctor/Carried.h"
#include "tools/tqrd/SourceNotes.h"
#include "tools/tqrd/SourceText.h"

namespace {

// A program beside the daemon, with a unit of the same name.
struct Beside {
    const char* name;
    const char* config;  // without this file the unit does not start; null: always
};
const Beside BESIDE[] = {{"orvex-board", nullptr},
                         {"orvex-mqtt", "/etc/orvex/mqtt.conf"},
                         {"orvex-gpio", "/etc/orvex/gpio.conf"},
                         {"orvex-tsl", "/etc/orvex/tsl.conf"}};

// The source without its quotes.
std::string PlainSource(std::string source) {
    source.erase(std::remove(source.begin(), source.end(), '"'), source.end());
    return source;
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

// Why none of the programs seen is the daemon.
void ExamineMissing(const Facts& facts, Findings& findings) {
    if (facts.MayHideDaemon()) {
        findings.push_back({Severity::Note, "daemon",
                            "not visible, but a program that can't be seen from here has its port",
                            "sudo orvexctl doctor, outside of containers"});
        return;
    }
    std::string text = "not running";
    std::string mend = "systemctl start orvex; journalctl -u orvex -n 20";
    if (!facts.daemons_elsewhere.empty()) {
        const RunningProgram& other = facts.daemons_elsewhere.front();
        text += " in this network namespace; " + ProcessText(other) + ", is in another one";
        mend = "nsenter -t " + std::to_string(other.pid) + " -n orvexctl doctor";
    } else if (!facts.pid_file.empty()) {
        text += "; it was process " + facts.pid_file + " once";
    }
    findings.push_back({Severity::Critical, "daemon", text, mend});
}

void ExamineDaemon(const Facts& facts, Findings& findings) {
    const auto daemons = facts.Daemons();
    if (daemons.empty()) {
        ExamineMissing(facts, findings);
    } else if (daemons.size() > 1) {
        std::string text = "more than one is running, so everything happens twice:";
        for (const RunningProgram* daemon : daemons) {
            text += " " + std::to_string(daemon->pid);
        }
        findings.push_back(
            {Severity::Critical, "daemon", text, "end the one started by hand: kill PROCESS"});
    } else if (daemons[0]->is_stopped) {
        findings.push_back({Severity::Critical, "daemon",
                            ProcessText(*daemons[0]) + ", is stopped by a signal or a debugger",
                            "kill -CONT " + std::to_string(daemons[0]->pid)});
    } else {
        findings.push_back({Severity::Well, "daemon", "running, " + ProcessText(*daemons[0]), ""});
    }
    if (daemons.size() == 1 && !daemons[0]->shows_sockets) {
        findings.push_back({Severity::Note, "daemon",
                            "its connections and its environment are not visible without root",
                            "sudo orvexctl doctor"});
    }
}

// The sockets on the daemon's port that others have. One that is bound to the group hears only what
// is sent to the group, which all of them get.
std::string OthersOnPort(const Facts& facts) {
    const RunningProgram* const daemon = facts.Daemon();
    const bool is_hidden = daemon == nullptr ? facts.MayHideDaemon() : !daemon->shows_sockets;
    bool has_hidden = false;
    std::string others;
    for (const SocketRow* row : OnBusPort(facts.udp)) {
        const RunningProgram* const owner = facts.OwnerOf(*row);
        if (IsDaemon(owner, facts) || (IN_MULTICAST(ntohl(row->local_ip)) && !facts.bind_error)) {
            continue;
        }
        if (is_hidden && !has_hidden && owner == nullptr && row->local_ip == INADDR_ANY) {
            has_hidden = true;  // must be the daemon's
            continue;
        }
        others += (others.empty() ? "" : "; ") + OwnerText(facts, *row);
    }
    return others;
}

void ExaminePort(const Facts& facts, Findings& findings) {
    const RunningProgram* const daemon = facts.Daemon();
    const std::string others = OthersOnPort(facts);
    const auto rows = OnBusPort(facts.udp);
    const bool is_open = std::any_of(
        rows.begin(), rows.end(), [](const SocketRow* row) { return row->local_ip == INADDR_ANY; });
    if (!others.empty()) {
        const bool can_start = facts.bind_error == 0 || facts.MayHideDaemon();
        findings.push_back(
            {can_start ? Severity::Warning : Severity::Critical, "port 2060",
             "taken by another program (" + others + ")" +
                 (can_start ? ": what is sent to this host alone reaches one of the two"
                            : ": the daemon can't start"),
             "end that program: ss -lunp sport = :2060"});
    } else if (daemon != nullptr && !is_open) {
        findings.push_back(
            {Severity::Critical, "port 2060", "the daemon does not listen there", RESTART});
    } else if (daemon != nullptr) {
        findings.push_back({daemon->shows_sockets ? Severity::Well : Severity::Note, "port 2060",
                            daemon->shows_sockets
                                ? "the daemon's alone"
                                : "taken once; by whom is not visible without root",
                            ""});
    }
}

// A program that systemd would start, and has not: its unit failed or was stopped.
bool IsMissing(const Beside& beside) {
    const std::string name = beside.name;
    const auto exists = [](const std::string& path) {
        std::error_code error;
        return std::filesystem::is_symlink(path, error) || std::filesystem::exists(path, error);
    };
    return exists("/run/systemd/system") &&
           exists("/etc/systemd/system/multi-user.target.wants/" + name + ".service") &&
           (beside.config == nullptr || exists(beside.config));
}

// The other programs of this host that share the bus, or serve the daemon.
void ExaminePrograms(const Facts& facts, Findings& findings) {
    for (const Beside& beside : BESIDE) {
        bool is_running = false;
        for (const RunningProgram& program : facts.programs) {
            if (program.name != beside.name) {
                continue;
            }
            is_running = true;
            if (program.is_stopped) {
                findings.push_back({Severity::Warning, "program",
                                    ProcessText(program) + ", is stopped by a signal or a debugger",
                                    "kill -CONT " + std::to_string(program.pid)});
            } else {
                findings.push_back(
                    {Severity::Well, "program", "running, " + ProcessText(program), ""});
            }
        }
        if (!is_running && IsMissing(beside)) {
            const std::string name = beside.name;
            findings.push_back({Severity::Warning, "program", name + " is enabled, but not running",
                                "systemctl start " + name + "; journalctl -u " + name + " -n 20"});
        }
    }
}

// A source that does not mean what it seems to mean.
void ExamineSource(const ChannelInfo& channel, const std::string& number, Findings& findings) {
    const std::string plain = PlainSource(channel.source);
    const auto reading = ReadSource(channel.line);
    if (!reading || plain.empty() || plain == "none") {
        return;
    }
    std::string text = "output " + number + " with the source " + channel.source +
                       " is driven by " + DescribeSource(channel.config) + ".";
    for (const std::string& note : reading->notes) {
        text += " " + note;
    }
    if (!reading->notes.empty()) {
        findings.push_back({Severity::Warning, "channel", Printable(text),
                            "correct SRCA of channel " + number + " in TQRD"});
    }
}

void ExamineChannels(const Facts& facts, Findings& findings) {
    for (int number = 1; number <= CHANNEL_COUNT; ++number) {
        const ChannelInfo& channel = facts.answer.table.Channel(number);
        if (channel.is_configured) {
            ExamineSource(channel, std::to_string(number), findings);
        } else if (!channel.line.empty()) {
            findings.push_back({Severity::Note, "channel",
                                Printable("the daemon ignores the line " + channel.line +
                                          ", which has no field SRCA"),
                                ""});
        }
    }
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
    ExamineInterface(facts, bus, findings);
    ExamineServers(facts, limit, findings);
    ExamineChannels(facts, findings);
    if (facts.Daemon() != nullptr) {
        ExamineQueues(facts, findings);
    }
    ExamineAnswer(facts, bus, findings);
    if (facts.Daemon() != nullptr) {
        ExamineInputs(facts, findings);
    }
    ExaminePrograms(facts, findings);
    return findings;
}
