// Whether the bus reaches the daemon, and the daemon the bus.

#include <arpa/inet.h>

#include <algorithm>

#include "protocol/numbers.h"
#include "tools/bus/PinName.h"
#include "tools/doctor/Checks.h"

namespace {

// Why the interface can't be used; empty if it can.
std::string InterfaceProblem(const Facts& facts, const std::string& device) {
    const std::optional<uint32_t> address = facts.AddressOf(device);
    if (!address) {
        return device + " is not there";
    }
    return *address == 0 ? device + " has no address" : "";
}

// Returns whether the daemon can use an interface of the bus.
bool ExamineAddress(const Facts& facts, const ExpectedBus& bus, Findings& findings) {
    const uint32_t named = facts.answer.table.InterfaceAddress().value_or(0);
    const std::string problem = InterfaceProblem(facts, bus.device);
    const auto mend = [&bus](const std::string& address) {
        return "ip addr add " + address + "/24 dev " + bus.device + "; " + RESTART;
    };
    const std::string device = BusDevice(facts, bus);
    if (named != 0 && facts.DeviceOf(named).empty()) {
        findings.push_back({Severity::Critical, "interface",
                            "TQRD names " + IpText(named) + ", which no interface has" +
                                (problem.empty() ? "" : ": " + problem),
                            problem.empty() ? "correct NIC_IPADDR in TQRD, or: ip addr show"
                                            : mend(IpText(named))});
        return false;
    }
    if (named != 0) {
        findings.push_back(
            {Severity::Well, "interface", device + ", " + IpText(named) + " as TQRD says", ""});
        return true;
    }
    if (!problem.empty()) {
        findings.push_back({Severity::Critical, "interface",
                            problem + ": the daemon can't join the group on it", mend("ADDRESS")});
        return false;
    }
    findings.push_back(
        {Severity::Well, "interface", device + ", " + IpText(*facts.AddressOf(device)), ""});
    return true;
}

// Whether anything passes on the interface.
void ExamineLink(const Facts& facts, const std::string& device, Findings& findings) {
    for (const InterfaceAddress& entry : facts.interfaces) {
        if (entry.device == device && !entry.has_carrier) {
            findings.push_back({Severity::Critical, "link",
                                device + (entry.is_on ? " has no carrier" : " is switched off") +
                                    ": nothing reaches the bus, and nothing arrives",
                                entry.is_on
                                    ? "check the cable and what it leads to; ip link show " + device
                                    : "ip link set " + device + " up"});
            return;
        }
    }
}

// The system's routes decide where replies and reports go until TQRD names another address than
// that of eth0, which the daemon begins with. Whether it began without that one can't be seen: what
// it sends then arrives.
void ExamineRoute(const Facts& facts, const ExpectedBus& bus, Findings& findings) {
    const uint32_t named = facts.answer.table.InterfaceAddress().value_or(0);
    if (!facts.DeviceOf(named).empty() &&
        (named != facts.AddressOf("eth0") || facts.bus.has_answered)) {
        return;
    }
    std::string way = "ip route add " + IpText(bus.group) + " dev " + bus.device;
    if (bus.device != "eth0") {
        way += ", or NIC_IPADDR=" + IpText(facts.AddressOf(bus.device).value_or(0)) + " in TQRD";
    }
    const std::string device = facts.DeviceOf(facts.route.address);
    if (facts.route.error != 0) {
        findings.push_back({Severity::Critical, "route",
                            "there is none to " + IpText(bus.group) +
                                ": the daemon's replies and reports are not sent",
                            way});
    } else if (!device.empty() && device != bus.device) {
        findings.push_back({Severity::Warning, "route",
                            "the one to " + IpText(bus.group) + " leads to " + device +
                                ": the daemon's replies and reports are sent there",
                            way});
    }
}

void ExamineGroup(const Facts& facts, const ExpectedBus& bus, bool is_usable, Findings& findings) {
    const std::string group = IpText(bus.group);
    const std::string option = facts.Daemon()->Option("-gpioip");
    if (!option.empty() && option != group) {
        findings.push_back({Severity::Critical, "group",
                            "the daemon serves " + option + ", not " + group,
                            "correct -gpioip in /etc/default/orvex; " + std::string(RESTART) +
                                " (or give the intended group: -g " + option + ")"});
        return;
    }
    const std::string device = BusDevice(facts, bus);
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
                        group + " is not joined on " + device +
                            (elsewhere.empty() ? "" : ", but on" + elsewhere) +
                            ": nothing that is sent to it arrives",
                        is_usable ? std::string(RESTART) + "; orvex(8), DIAGNOSTICS, \"join\""
                                  : "mend the interface first; then " + std::string(RESTART)});
}

// What a firewall of this host drops. True if that explains why no answer was heard.
bool ExamineFirewall(const Facts& facts, Findings& findings) {
    struct Row {
        bool applies;
        Severity severity;
        const char* text;
        const char* chain;
        int port;
    };
    const Row rows[] = {
        {facts.requests == Passage::NotReceived, Severity::Critical,
         "what arrives on port 2060: the daemon gets no writes and reads", "input", BUS_PORT},
        {facts.reports == Passage::NotSent, Severity::Critical,
         "what this host sends to port 2055: the daemon's replies and reports", "output",
         REPORT_PORT},
        {facts.requests == Passage::NotSent, Severity::Warning,
         "what this host sends to port 2060: its programs can't set or read pins", "output",
         BUS_PORT},
        {facts.reports == Passage::NotReceived, Severity::Warning,
         "what arrives on port 2055: programs of this host hear no replies and reports", "input",
         REPORT_PORT},
    };
    bool has_found = false;
    for (const Row& row : rows) {
        if (!row.applies) {
            continue;
        }
        const std::string port = std::to_string(row.port);
        std::string upper = row.chain;
        std::transform(upper.begin(), upper.end(), upper.begin(), toupper);
        findings.push_back(
            {row.severity, "firewall", std::string("a rule of this host drops ") + row.text,
             "nft insert rule inet filter " + std::string(row.chain) + " udp dport " + port +
                 " accept, or iptables -I " + upper + " -p udp --dport " + port +
                 " -j ACCEPT; nft list ruleset shows the rules"});
        has_found = true;
    }
    return has_found;
}

bool HasProblem(const Findings& findings) {
    return std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.severity == Severity::Critical;
    });
}

}  // namespace

void ExamineInterface(const Facts& facts, const ExpectedBus& bus, Findings& findings) {
    const bool is_usable = ExamineAddress(facts, bus, findings);
    ExamineLink(facts, BusDevice(facts, bus), findings);
    if (is_usable || !facts.DeviceOf(facts.route.address).empty()) {
        ExamineRoute(facts, bus, findings);
    }
    if (facts.Daemon() != nullptr) {
        ExamineGroup(facts, bus, is_usable, findings);
    }
}

void ExamineAnswer(const Facts& facts, const ExpectedBus& bus, Findings& findings) {
    const bool is_explained = HasProblem(findings);
    const bool is_dropped = ExamineFirewall(facts, findings);
    for (const auto& [address, hosts] : facts.bus.others) {
        for (const uint32_t host : hosts) {
            findings.push_back({Severity::Warning, "address",
                                IpText(host) + " answers for " + AddressText(address) +
                                    " too: writes reach both, and a read shows either",
                                "configure another address for one of them in its TQRD"});
        }
    }
    if (facts.Daemon() == nullptr && !facts.MayHideDaemon()) {
        return;
    }
    if (facts.bus.has_answered) {
        findings.push_back({Severity::Well, "read", "the daemon answers on the bus", ""});
    } else if (!facts.bus.was_asked) {
        findings.push_back({Severity::Note, "read", "not asked: " + facts.bus.problem, ""});
    } else if (is_dropped) {
        findings.push_back({Severity::Note, "read", "no answer of the daemon was heard", ""});
    } else {
        findings.push_back(
            {Severity::Critical, "read",
             "the daemon does not answer on the bus" +
                 (facts.bus.problem.empty() ? "" : ": " + facts.bus.problem),
             is_explained
                 ? "solve the problems above first; then orvex(8), \"Reports or replies do not "
                   "arrive at peers\""
                 : "orvexctl get -t " + IpText(facts.AddressOf(BusDevice(facts, bus)).value_or(0)) +
                       " ADDRESS; orvex(8), \"Reports or replies do not arrive at peers\""});
    }
}
