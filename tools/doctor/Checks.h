// What is well and what is wrong with a daemon.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tools/doctor/Facts.h"

enum class Severity {
    Well,
    Note,     // could not be looked at, or is worth knowing
    Warning,  // works, but not as it should
    Critical  // does not work
};

struct Finding {
    Severity severity;
    const char* subject;  // "daemon", "TQRD": what was looked at
    std::string text;     // what was found, with its cause
    std::string mend;     // what to do about it; empty when there is nothing to do
};

using Findings = std::vector<Finding>;

// Everything, in the order in which it is worth reading. Servers that the daemon has no connection
// to are tried, each within the limit, to tell why.
Findings Examine(const Facts& facts, const ExpectedBus& bus, std::chrono::milliseconds limit);

// The part of it that is about connections to TQRD and to remote servers.
void ExamineServers(const Facts& facts, std::chrono::milliseconds limit, Findings& findings);
