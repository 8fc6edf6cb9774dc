// What happens on the bus and to the board, as the history stores it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// These numbers are stored: never change their meaning.
enum class EventKind : int {
    Told = 1,              // a pin has this level, or is unknown from here on (no level)
    Written = 2,           // a write was seen on the bus
    SetAsked = 3,          // someone asked this board to write
    DeviceFirst = 4,       // a host answered or reported for the first time since the start
    DeviceMissing = 5,     // it no longer answers
    DeviceBack = 6,        // it answers again
    GapBegin = 7,          // from here on nothing was heard or stored, for the reason in the text,
    GapEnd = 8,            // until here
    ClockSetBack = 9,      // from here on times repeat; the duration says how many milliseconds
    DeviceForgotten = 10,  // it is no longer expected to answer
};

// An event. Times are milliseconds since 1970.
struct Event {
    int64_t id = 0;  // grows with every event; assigned when it is stored
    int64_t time = 0;
    EventKind kind = EventKind::Told;
    std::optional<uint32_t> tag;  // the pin
    std::optional<bool> low;      // its level
    int64_t duration = 0;         // of a write in ms, 0: no limit
    std::string host;             // who told or wrote; for SetAsked who asked
    std::string text;             // a text for people
    int64_t mono = 0;             // ms of the steady clock, to measure the delay until it is stored
};

// A time in which nothing was heard, so that silence is not taken for "nothing happened".
struct Gap {
    int64_t from = 0;
    std::optional<int64_t> until;  // none: not over yet
    std::string reason;
};

// If an event is that many ms earlier than the one before, the clock was set back; less may be the
// disorder of two messages.
constexpr int64_t SET_BACK_MS = 1000;
