#include "tools/board/PinTimes.h"

#include <algorithm>

namespace {

// A device tells an output within seconds after a write.
const int64_t WRITE_BEFORE = 12000;  // ms

// From here on, a pin has a level or is not known.
struct Mark {
    int64_t time = 0;
    std::optional<bool> low;
    std::string who;
};

bool IsIn(const std::vector<Gap>& gaps, int64_t time) {
    return std::any_of(gaps.begin(), gaps.end(), [&](const Gap& gap) {
        return gap.from <= time && (!gap.until || *gap.until > time);
    });
}

// Events are the last one first: what was asked and written before follows.
std::string WhoOf(const std::vector<Event>& events, size_t told) {
    std::string who = events[told].host;
    for (size_t i = told + 1; i < events.size() && events[i].kind != EventKind::Told &&
                              events[told].time - events[i].time <= WRITE_BEFORE;
         ++i) {
        const bool fits = events[i].low == events[told].low;
        if (fits && events[i].kind == EventKind::SetAsked && events[i].text.empty()) {
            return events[i].host;
        }
        who = fits && events[i].kind == EventKind::Written ? events[i].host : who;
    }
    return who;
}

std::vector<Mark> MarksOf(const HistorySearch::Answer& found) {
    std::vector<Mark> marks;
    int64_t oldest = INT64_MAX - SET_BACK_MS;  // what is later than that had its time again
    for (size_t i = 0; i < found.events.size(); ++i) {
        const Event& event = found.events[i];
        if (event.time > oldest + SET_BACK_MS) {
            continue;
        }
        oldest = std::min(oldest, event.time);
        if (event.kind == EventKind::Told && !IsIn(found.gaps, event.time)) {
            marks.push_back({event.time, event.low, WhoOf(found.events, i)});
        }
    }
    std::reverse(marks.begin(), marks.end());
    for (const Gap& gap : found.gaps) {
        marks.push_back({gap.from, std::nullopt, ""});
    }
    std::stable_sort(marks.begin(), marks.end(),
                     [](const Mark& a, const Mark& b) { return a.time < b.time; });
    return marks;
}

}  // namespace

std::vector<Stretch> StretchesOf(const HistorySearch::Answer& found, int64_t from, int64_t until) {
    Stretch open = {from, until, std::nullopt, ""};
    if (!found.more && found.earlier) {
        open.low = found.earlier->low;
        open.who = found.earlier->host;
    }
    std::vector<Stretch> stretches;
    for (const Mark& mark : MarksOf(found)) {
        const int64_t time = std::clamp(mark.time, from, until);
        if (mark.low == open.low) {
            continue;
        }
        if (time > open.from) {
            stretches.push_back({open.from, time, open.low, open.who});
        }
        open = {time, until, mark.low, mark.who};
    }
    if (until > open.from) {
        stretches.push_back(open);
    }
    return stretches;
}

LevelTimes SumOf(const std::vector<Stretch>& stretches, int64_t from, int64_t until) {
    LevelTimes sum;
    std::optional<bool> before;
    for (const Stretch& one : stretches) {
        const int64_t time = std::max<int64_t>(0, std::min(one.until, until) -  //
                                                      std::max(one.from, from));
        (!one.low ? sum.unknown_ms : *one.low ? sum.low_ms : sum.high_ms) += time;
        if (one.from >= from && one.from < until && before && one.low && *before != *one.low) {
            ++(*one.low ? sum.became_low : sum.became_high);
        }
        before = one.low;
    }
    return sum;
}
