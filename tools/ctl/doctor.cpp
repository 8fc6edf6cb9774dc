// doctor: what is wrong with the daemon of this device, and the remedy.

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "tools/base/MetricsText.h"
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

double Channels(const Facts& facts, ChannelKind kind) {
    return static_cast<double>(facts.answer.table.Find(kind).size());
}

// For the collector of a monitoring system, which tells how old it is. A check that finds nothing
// any more has no rows.
void PrintMetrics(const Facts& facts, const Findings& findings, Output& output) {
    std::map<std::string, std::array<int, std::size(SEVERITIES)>> counts;
    for (const Finding& finding : findings) {
        ++counts[finding.subject][static_cast<size_t>(finding.severity)];
    }
    MetricsText text(false);
    text.Gauge("orvex_doctor_findings", "What the checks of orvexctl doctor found.");
    for (const auto& [check, by_severity] : counts) {
        for (size_t i = 0; i < by_severity.size(); ++i) {
            text.Row(by_severity[i], {{"check", check}, {"status", SEVERITIES[i].json}});
        }
    }
    text.Gauge("orvex_doctor_waiting_bytes", "Bytes that wait for the daemon on its port.",
               static_cast<double>(Waiting(facts, &SocketRow::unread)));
    text.Counter("orvex_doctor_lost_datagrams", "Datagrams for the daemon that were lost.",
                 static_cast<double>(Waiting(facts, &SocketRow::drops)));
    text.Gauge("orvex_doctor_channels", "Channels by what drives their outputs.");
    text.Row(Channels(facts, KIND_BUS), {{"source", "bus"}});
    text.Row(Channels(facts, KIND_REMOTE), {{"source", "remote"}});
    text.Gauge("orvex_doctor_last_run_timestamp_seconds", "When this was found, since 1970.",
               TimeOfDay());
    output.Write(text.Text());
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
    if (options.metrics) {
        PrintMetrics(facts, findings, output);
        return STATUS_DONE;
    }
    Print(options, findings, output);
    const bool is_well = std::all_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity < Severity::Warning;
    });
    return is_well ? STATUS_DONE : STATUS_FAILED;
}
