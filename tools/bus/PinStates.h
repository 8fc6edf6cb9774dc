// What is known about every pin on the bus, from the messages there.
//
// Devices report their inputs when they change. They never report outputs: these must be read, and
// a device always answers high for the outputs of its channels 9 to 32. So a pin is told, written
// or unknown:
//
//   told     a device has sent its level
//   written  somebody has written it since, and no device has confirmed it
//   unknown  neither, or nobody answers any more
//
// After a write, the pin is read again, up to three times. An answer with the written level makes
// it told. An answer with the other level may be older than the write, so only one to the last read
// counts. If that is high, and the pin has never been told low, the device may be answering for an
// output that it does not know: the pin stays written, and is marked as denied.
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

// When something was heard, and from whom.
struct Heard {
    TimePoint at;
    double time;    // seconds since 1970
    uint32_t host;  // host byte order; 0: this program
};

struct PinState {
    PinStatus status = PinStatus::Unknown;
    std::optional<Level> level;  // none: unknown

    // When the level was first heard, or was no longer known. seen_changing: the last known one was
    // another; otherwise the pin may have had it for longer.
    std::optional<Heard> since;
    bool seen_changing = false;

    std::optional<Heard> told;     // by the last device that told the pin
    std::optional<Heard> written;  // by the last writer, whether it was carried out or not
    Level written_level = Level::High;
    bool denied = false;  // written low, and answered high by a device that may not know

    // Of the last write: how long the level stays, 0 for no limit, and until when. After that the
    // pin returns to its earlier level.
    unsigned int duration_ms = 0;
    TimePoint until = TimePoint::max();
};

// A change in what is known about a pin.
struct PinChange {
    enum class Cause { Reported, Answered, Written, Forgotten };

    // Whether the pin now has another level, as far as is known. Otherwise it was confirmed, denied
    // or written again.
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

// Seconds from a write that was denied, the so many-th in a row, to the next attempt. The device
// may not have got it; the pauses grow, for a device that answers high for all its outputs.
double DeniedPause(int times);

// Processes what a BusLink hears, preferably reports and requests. Does not send: the caller reads
// the pins that Tend() lists, for instance with AskForPins(). For one thread.
//
// Memory is bounded: of pins that were not wanted, only the first ones are stored, up to the limit,
// and no more than a share of it from one host. Messages about others are ignored and counted.
class PinStates {
public:
    static constexpr size_t DEFAULT_LIMIT = 20000;
    static constexpr size_t DEFAULT_SHARE = 4000;

    explicit PinStates(size_t limit = DEFAULT_LIMIT, size_t share = DEFAULT_SHARE);

    // Stores the pin regardless of the limit, as long as the object lives. For pins that the user
    // named.
    void Want(uint32_t tag);

    // Processes a message. Repeats are harmless.
    std::vector<PinChange> Take(const Traffic& traffic, TimePoint now);

    // Handles what is due. Adds the tags of the pins to read now to ask, at most as many at a time
    // as a receive buffer has room for the answers.
    std::vector<PinChange> Tend(TimePoint now, std::vector<uint32_t>& ask);

    // When to call Tend() next; TimePoint::max() if nothing is due.
    TimePoint NextTime() const;

    // The pin is read now. After that many reads in a row without an answer it is unknown.
    std::optional<PinChange> NoteRead(uint32_t tag, TimePoint now, int most);

    // The pin is unknown from now on; who told it last, and when, is kept. None if it was unknown
    // before.
    std::optional<PinChange> Forget(uint32_t tag, TimePoint now);

    // Null if nothing was heard of the pin. Valid until the next call of Take() or Tend().
    const PinState* Find(uint32_t tag) const;

    // In the order of their tags.
    void ForEach(const std::function<void(uint32_t tag, const PinState& state)>& visit) const;

    // The stored pins of an address.
    std::vector<uint32_t> TagsOf(uint32_t address) const;

    size_t Count() const { return m_pins.size(); }

    // The number of messages about pins that were ignored because of the limit.
    uint64_t PassedOver() const { return m_passed_over; }

private:
    struct Pin {
        PinState state;
        bool follows = false;       // was told low: a device knows its state
        std::optional<Level> last;  // the last known level
        int questions = 0;          // reads left after a write
        int unanswered = 0;         // reads in a row
        TimePoint ask = TimePoint::max();
        TimePoint give_up = TimePoint::max();  // no answer after a write's duration
        TimePoint due = TimePoint::max();      // as in m_due
        std::optional<uint32_t> host;          // whose share it takes; none: it was wanted
    };

    Pin* Get(uint32_t tag, uint32_t host);
    std::optional<PinChange> Tell(uint32_t tag, Pin& pin, Level level, Kind kind,
                                  const Heard& heard);
    std::optional<PinChange> Write(uint32_t tag, Pin& pin, const PinValue& value,
                                   const Heard& heard);
    bool IsDoubtful(const Pin& pin, Level level, Kind kind, TimePoint now) const;
    void SetLevel(Pin& pin, std::optional<Level> level, const Heard& heard);
    std::optional<PinChange> Pass(uint32_t tag, Pin& pin, TimePoint now,
                                  std::vector<uint32_t>& ask);
    PinChange Forget(uint32_t tag, Pin& pin, TimePoint now);
    void BeginAsking(Pin& pin, TimePoint now);
    void Schedule(uint32_t tag, Pin& pin);
    double Delay();

    const size_t m_limit;
    const size_t m_share;
    size_t m_unwanted = 0;                // pins that count towards the limit
    std::map<uint32_t, size_t> m_shares;  // the same by host
    uint64_t m_passed_over = 0;
    std::map<uint32_t, Pin> m_pins;                  // not hashed: peers choose the tags
    std::set<std::pair<TimePoint, uint32_t>> m_due;  // pins with something due
    TimePoint m_pause{};                             // no reads before
    std::minstd_rand m_random;
};
