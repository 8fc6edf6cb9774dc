// How long a pin had each level, from its history.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/board/HistorySearch.h"

// A time in which a pin had one level, or was not known. Times are milliseconds since 1970.
struct Stretch {
    int64_t from = 0;
    int64_t until = 0;
    std::optional<bool> low;  // none: not known
    std::string who;  // who asked for the level or wrote it shortly before, else who told it
};

// What a search for one pin with that `from` found, as stretches without holes from there to
// `until`, oldest first. In gaps, and after them until it is told again, the pin is not known; nor
// is it before what a limit has left out. Of times that came twice because the clock was set back,
// the later ones count.
std::vector<Stretch> StretchesOf(const HistorySearch::Answer& found, int64_t from, int64_t until);

// Sums of the part of some stretches that lies in a time.
struct LevelTimes {
    int64_t low_ms = 0;
    int64_t high_ms = 0;
    int64_t unknown_ms = 0;
    unsigned became_low = 0;  // changes that were seen: not those from or to "not known"
    unsigned became_high = 0;
};
LevelTimes SumOf(const std::vector<Stretch>& stretches, int64_t from, int64_t until);
