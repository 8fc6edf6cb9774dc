// Plays the daemon against somebody's server or peer, and finds which of its duties it meets. The
// duties are those of docs/protocol.md.
#pragma once

#include <functional>

#include "net/SvcAddress.h"
#include "tools/bus/BusLink.h"
#include "tools/conform/Duty.h"

struct ConformSettings {
    double wait = 1;    // seconds, for an answer
    double listen = 0;  // seconds in which somebody changes an input, or uses the peer
};

// Is called with each finding, in the order of the duties.
using TellFinding = std::function<void(const DutyFinding&)>;

// These take some seconds, and throw NobodyThere.

// A control server. Switches the output of its first channel on the bus, and leaves it high.
void ExamineControl(const CSvcAddress& server, const ConformSettings& settings,
                    const TellFinding& tell);

// A remote GPIO server, one input of which is followed.
void ExamineRemote(const CSvcAddress& server, int input, const ConformSettings& settings,
                   const TellFinding& tell);

// A peer on the bus that reads and writes meanwhile: the first that is heard, or the one of the
// settings. Plays a device with all addresses. Throws BusError too.
void ExaminePeer(const BusSettings& bus, const ConformSettings& settings, const TellFinding& tell);
