// What works and what is wrong with a daemon.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/doctor/Facts.h"

enum class Severity {
    Well,
    Note,     // could not be examined, or is worth knowing
    Warning,  // works, but not as it should
    Critical  // does not work
};

struct Finding {
    Severity severity;
    const char* subject;  // "daemon", "TQRD": what was examined
    std::string text;     // the finding, with its cause
    std::string mend;     // the remedy; empty if there is none
};

using Findings = std::vector<Finding>;

// All findings, in a sensible order for reading. Tries servers that the daemon is not connected to,
// each within the limit, to find the reason.
Findings Examine(const Facts& facts, const ExpectedBus& bus, std::chrono::milliseconds limit);

// How the daemon is restarted.
inline constexpr const char* RESTART = "systemctl restart orvex";

// The part about the interface of the bus, the route and the group.
void ExamineInterface(const Facts& facts, const ExpectedBus& bus, Findings& findings);

// The part about the answers on the bus, and what a firewall does to them.
void ExamineAnswer(const Facts& facts, const ExpectedBus& bus, Findings& findings);

// The part about connections to TQRD and to remote servers.
void ExamineServers(const Facts& facts, std::chrono::milliseconds limit, Findings& findings);
