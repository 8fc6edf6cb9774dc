// What is known about one pin as JSON, one flat object a line:
//
//   {"time":1714564800.25,"host":"10.77.0.1","pin":"1:2:out3","name":"studio1.onair",
//    "text":"Studio 1 on air","level":"L"}
//
//   time   when it was told, seconds since 1970
//   host   who told it, null for nobody
//   name   the pin's name, text what it is: only when it has them
//   level  L or H, null when it is not known
//
// A change has, before its level, what the pin was before and what made it another:
//
//   "kind":"write","before":"H","level":"L","duration":500,"state":"written","denied":true
//
//   kind      write, report, reply, or forgotten: the time of a write is over, and nobody answered
//   duration  of a write, in ms; only when it has one
//   state     told, written (and not confirmed) or unknown
//   denied    only when true: it was written low and is answered high, which may not be true
#pragma once

#include <optional>
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

// The lines without their ends.
std::string ToJson(const PinFact& fact, const Names& names);
std::string ToJson(const PinChange& change, const Names& names);

// "write", "report", "reply" or "forgotten"
const char* CauseText(PinChange::Cause cause);

// "told", "written" or "unknown"
const char* StatusText(PinStatus status);

// "L", "H" or "?"
std::string LevelText(std::optional<Level> level);
