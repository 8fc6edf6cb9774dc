// What is known about one pin as JSON, one flat object per line:
//
//   {"time":1714564800.25,"host":"10.77.0.1","pin":"1:2:out3","name":"studio1.onair",
//    "text":"Studio 1 on air","level":"L"}
//
//   time   when it was told, seconds since 1970
//   host   who told it, null if nobody did
//   name   the pin's name, text its description: only if it has them
//   level  L or H, null if not known
//
// A change also has the earlier level and the cause of the change:
//
//   "kind":"write","before":"H","level":"L","duration":500,"state":"written","denied":true
//
//   kind      write, report, reply, or forgotten: nobody answers any more
//   duration  of a write, in ms, if it has one
//   state     told, written (and not confirmed) or unknown
//   denied    only if true: it was written low and is answered high, which may be wrong
#pragma once

#include <optional>
#include <set>
#include <string>

#include "tools/bus/Names.h"
#include "tools/bus/PinStates.h"

// A level of a pin, as somebody told it.
struct PinFact {
    uint32_t tag;
    std::optional<Level> level;
    double time = 0;    // seconds since 1970
    uint32_t host = 0;  // host byte order; 0: nobody
};

// The lines without their ends. With hosts, "hosts" contains all that have the pin's address.
std::string ToJson(const PinFact& fact, const Names& names);
std::string ToJson(const PinFact& fact, const std::set<uint32_t>& hosts, const Names& names);
std::string ToJson(const PinChange& change, const Names& names);

// "write", "report", "reply" or "forgotten"
const char* CauseText(PinChange::Cause cause);

// "told", "written" or "unknown"
const char* StatusText(PinStatus status);

// "L", "H" or "?"
std::string LevelText(std::optional<Level> level);
