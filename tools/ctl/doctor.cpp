// doctor: what is wrong with the daemon of this device, and the remedy.

#include <arpa/inet.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <thread>

#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/doctor/AskBus.h"
#include "tools/doctor/Checks.h"

namespace {

// What a daemon that is not busy reads meanwhile.
const std::chrono::milliseconds BETWEEN_LOOKS(200);

struct SeverityName {
    const char* json;
    const char* text;
    const char* plugin;
};

// In the order of Severity. What could not be examined is no problem.
const SeverityName SEVERITIES[] = {{"ok", "ok", "OK"},
                                   {"note", "note", "OK"},
                                   {"warning", "WARN", "WARNING"},
                                   {"critical", "FAIL", "CRITICAL"}};

const SeverityName& NameOf(Severity severity) {
    return SEVERITIES[static_cast<size_t>(severity)];
}

// The address of the bus interface, for reading through it.
BusSettings SettingsFor(const Options& options, const Facts& facts, const ExpectedBus& bus) {
    BusSettings settings = options.bus;
    const uint32_t named = facts.answer.table.InterfaceAddress().value_or(0);
    if (settings.iface.empty()) {
        settings.iface = facts.DeviceOf(named).empty() ? bus.device : IpText(named);
    }
    return settings;
}

void Print(const Options& options, const Findings& findings, Output& output) {
    for (const Finding& finding : findings) {
        if (options.json) {
            const nlohmann::ordered_json json = {{"check", finding.subject},
                                                 {"status", NameOf(finding.severity).json},
                                                 {"finding", finding.text},
                                                 {"mend", finding.mend}};
            output.Write(json.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace) + "\n");
        } else if (!options.console.quiet || finding.severity > Severity::Note) {
            std::string heading = NameOf(finding.severity).text;
            heading.resize(6, ' ');
            heading += finding.subject;
            heading.resize(17, ' ');
            output.WriteLine(
                heading + finding.text + (finding.mend.empty() ? "" : " -> " + finding.mend),
                heading.size());
        }
    }
}

unsigned long Waiting(const Facts& facts, unsigned long SocketRow::*count) {
    unsigned long sum = 0;
    for (const SocketRow& row : facts.later_udp) {
        sum += row.local_port == BUS_PORT ? row.*count : 0;
    }
    return sum;
}

// One line with performance data, for monitoring systems.
int PrintPlugin(const Facts& facts, const Findings& findings, Output& output) {
    Severity worst = Severity::Well;
    std::string text;
    for (const Finding& finding : findings) {
        if (finding.severity > Severity::Note) {
            worst = std::max(worst, finding.severity);
            text += (text.empty() ? "" : "; ") + std::string(finding.subject) + ": " + finding.text;
        }
    }
    const RunningProgram* const daemon = facts.Daemon();
    const bool is_blind =
        worst < Severity::Warning && (daemon == nullptr || !daemon->shows_sockets);
    if (text.empty()) {
        text = is_blind ? "the daemon's connections are not visible from here" : "all is well";
    }
    const char* const status = is_blind ? "UNKNOWN" : NameOf(worst).plugin;
    std::replace(text.begin(), text.end(), '|', '/');  // it separates the performance data
    output.Write("ORVEX " + std::string(status) + " - " + text +
                 " | waiting=" + std::to_string(Waiting(facts, &SocketRow::unread)) +
                 "B lost=" + std::to_string(Waiting(facts, &SocketRow::drops)) +
                 "c bus_channels=" + std::to_string(facts.answer.table.Find(KIND_BUS).size()) +
                 " remote_channels=" + std::to_string(facts.answer.table.Find(KIND_REMOTE).size()) +
                 "\n");
    return is_blind ? 3 : std::max(0, static_cast<int>(worst) - static_cast<int>(Severity::Note));
}

}  // namespace

int RunDoctor(const Options& options) {
    Output output(options);
    const std::chrono::milliseconds limit(static_cast<long long>(options.bus.wait * 1000));
    const ExpectedBus bus = {htonl(options.bus.group),
                             options.bus.iface.empty() ? "eth0" : options.bus.iface};
    Facts facts = Look(options.tqrd, bus, limit);
    const TimePoint looked = Now();
    facts.bus = AskBus(SettingsFor(options, facts, bus), facts);
    std::this_thread::sleep_until(looked + BETWEEN_LOOKS);
    facts.later_tcp = ReadSockets("tcp");
    facts.later_udp = ReadSockets("udp");
    if (!facts.bus.has_answered) {
        TryPorts(bus, facts);
    }
    const Findings findings = Examine(facts, bus, limit);
    if (options.plugin) {
        return PrintPlugin(facts, findings, output);
    }
    Print(options, findings, output);
    const bool is_well = std::all_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity < Severity::Warning;
    });
    return is_well ? STATUS_DONE : STATUS_FAILED;
}
