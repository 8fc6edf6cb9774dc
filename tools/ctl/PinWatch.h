// Listens to pins: the common part of watch and wait.
#pragma once

#include <vector>

#include "tools/base/Signals.h"
#include "tools/bus/PinFollower.h"

struct Options;

// Follows pins on the bus, and prints notes about changes of the interface and about missing
// answers. SIGINT and SIGTERM end the waiting, not the program.
class PinWatch {
public:
    enum class Event {
        Heard,    // a message came, or pins changed by the passage of time
        Link,     // the interface changed
        Stopped,  // by a signal
        HungUp,   // SIGHUP, if the options say that a recording is put aside
        TimedOut
    };

    // Outputs among the pins of Ask() are read again at this interval in seconds, inputs, which are
    // reported, ten times less often: changes of an output by the control server itself are not
    // heard. 0: not again. Pins that were written are read too, unless it is passive.
    PinWatch(const Options& options, double every, bool is_passive);

    // Reads the pins until they are answered or the waiting time of the options is over.
    void Ask(const std::vector<PinRef>& pins);

    // Reads all pins with names once, so that the earlier level of a change is known. Missing
    // answers are not noted.
    void AskForNamed();

    // Waits for an event.
    Event Wait(TimePoint deadline);

    // About the last Wait() that returned Heard: the message (null if there was none), what
    // changed, whether the message is the second copy of another, and whether it answers the first
    // read.
    const Traffic* Message() const { return m_message; }
    const std::vector<PinChange>& Changes() const { return m_changes; }
    bool IsRepeat() const { return m_is_repeat; }
    bool IsFirstAnswer() const { return m_is_first_answer; }

    const BusLink::Change& LinkChange() const { return m_link_change; }

    const PinStates& States() const { return m_follower.States(); }

private:
    void NoteMissing();
    void NoteLimit();

    const Options& m_options;
    Signals m_signals;
    PinFollower m_follower;
    bool m_told_missing = true;  // or nobody wants to know
    bool m_told_limit = false;

    const Traffic* m_message = nullptr;
    bool m_is_repeat = false;
    bool m_is_first_answer = false;
    std::vector<PinChange> m_changes;
    BusLink::Change m_link_change{true, {}};
    bool m_has_link_change = false;
};
