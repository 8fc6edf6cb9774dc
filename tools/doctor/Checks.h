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

// The part about connections to TQRD and to remote servers.
void ExamineServers(const Facts& facts, std::chrono::milliseconds limit, Findings& findings);
