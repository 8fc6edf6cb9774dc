// What is known about every pin of the bus, from what is heard on it.
//
// Devices report their inputs when they change. They never report outputs: these can only be asked
// for, and a device answers high for the outputs of its channels 9 to 32 whatever they are. So a
// pin is told, written or unknown:
//
//   told     a device has said what it is
//   written  somebody has written it since, and no device has confirmed it
//   unknown  neither, or its time was over and nobody answered
//
// After a write a pin is to be asked for again, three times at most. An answer of the written level
// makes it told. Another answer may be older than the write; after the last question it counts,
// but for one: high after a write of low, of a pin that has never been low, proves nothing. Such a
// pin stays written and is marked as denied.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "tools/base/Time.h"
#include "tools/bus/Traffic.h"

enum class PinStatus : uint8_t { Unknown, Written, Told };

// When something was heard, and of whom.
struct Heard {
    TimePoint at;
    double time;    // seconds since 1970
    uint32_t host;  // host byte order; 0: this program
};

struct PinState {
    PinStatus status = PinStatus::Unknown;
    std::optional<Level> level;  // none: unknown

    // When the level was first heard. Only with seen_changing was it another one before: else the
    // pin may have had it for longer.
    std::optional<Heard> since;
    bool seen_changing = false;

    std::optional<Heard> told;     // by the last device that told the pin
    std::optional<Heard> written;  // by the last writer, whether it was carried out or not
    bool denied = false;           // written low, and answered high by a device that may not know

    // Of the last write: how long the level stays, 0 for no limit, and until when that is. The time
    // is over when that has passed, and the pin then goes back to what it was before.
    unsigned int duration_ms = 0;
    TimePoint until = TimePoint::max();
};

// Something that became known about a pin.
struct PinChange {
    enum class Cause { Reported, Answered, Written, Forgotten };

    // Whether the pin has another level now, as far as is known. Else it was confirmed, denied or
    // written once more.
    bool IsNewLevel() const { return before != after; }

    uint32_t tag;
    Cause cause;
    double time;                  // seconds since 1970
    uint32_t host;                // who told or wrote it, host byte order; 0: nobody
    std::optional<Level> before;  // none: not known
    std::optional<Level> after;
    PinStatus status;  // from now on
    bool denied;
    unsigned int duration_ms;  // of a write; 0: no limit
};

// Takes what a BusLink hears, best of reports and requests. Does not send: the caller asks for the
// pins that Tend() names, for instance with AskForPins(). For one thread.
//
// Memory is bounded: of pins that were not wanted, only so many are remembered as the limit allows,
// the first ones that are heard of. What is said about others is passed over and counted.
class PinStates {
public:
    static constexpr size_t DEFAULT_LIMIT = 20000;

    explicit PinStates(size_t limit = DEFAULT_LIMIT);

    // Remembers the pin whatever the limit, as long as the object lives. For pins that the user
    // named.
    void Want(uint32_t tag);

    // Takes a message. Repeats of it do no harm.
    std::vector<PinChange> Take(const Traffic& traffic, TimePoint now);

    // What happened by time alone. Adds the tags of the pins that must be asked for now to ask, so
    // many at a time that a receiver's buffer holds the answers.
    std::vector<PinChange> Tend(TimePoint now, std::vector<uint32_t>& ask);

    // When to call Tend() next; TimePoint::max() when nothing is due.
    TimePoint NextTime() const;

    // Has Tend() name the pin then, once. For outputs that may have changed without a write.
    void AskAt(uint32_t tag, TimePoint when);

    // Null when nothing was heard of the pin. Valid until the next call of Take() or Tend().
    const PinState* Find(uint32_t tag) const;

    // In the order of their tags.
    void ForEach(const std::function<void(uint32_t tag, const PinState& state)>& visit) const;

    size_t Count() const { return m_pins.size(); }

    // How many statements about pins were passed over because the limit was reached.
    uint64_t PassedOver() const { return m_passed_over; }

private:
    struct Pin {
        PinState state;
        bool follows = false;  // was told low: a device knows its state
        int questions = 0;     // left after a write
        TimePoint ask = TimePoint::max();
        TimePoint give_up = TimePoint::max();  // no answer after the time of a write was over
        TimePoint due = TimePoint::max();      // as it stands in m_due
    };

    Pin* Get(uint32_t tag);
    std::optional<PinChange> Tell(uint32_t tag, Pin& pin, Level level, Kind kind,
                                  const Heard& heard);
    std::optional<PinChange> Write(uint32_t tag, Pin& pin, const PinValue& value,
                                   const Heard& heard);
    bool IsDoubtful(const Pin& pin, Level level, Kind kind, TimePoint now) const;
    void SetLevel(Pin& pin, std::optional<Level> level, const Heard& heard);
    std::optional<PinChange> Pass(uint32_t tag, Pin& pin, TimePoint now,
                                  std::vector<uint32_t>& ask);
    void BeginAsking(Pin& pin, TimePoint now);
    void Schedule(uint32_t tag, Pin& pin);
    double Delay();

    const size_t m_limit;
    size_t m_unwanted = 0;  // pins that the limit counts
    uint64_t m_passed_over = 0;
    std::map<uint32_t, Pin> m_pins;                  // not hashed: peers choose the tags
    std::set<std::pair<TimePoint, uint32_t>> m_due;  // pins that have something due
    TimePoint m_pause{};                             // no questions before
    std::minstd_rand m_random;
};
