// Listens to pins: the common part of watch, wait and set --check.
#pragma once

#include <optional>
#include <vector>

#include "tools/base/Signals.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/PinStates.h"
#include "tools/bus/Question.h"
#include "tools/bus/RepeatFilter.h"

struct Options;

// Reads the given pins, keeps their states up to date, and prints notes about changes of the
// interface and about missing answers. SIGINT and SIGTERM end the waiting, not the program.
class PinWatch {
public:
    enum class Event {
        Heard,    // a message came, or pins changed by the passage of time
        Link,     // the interface changed
        Stopped,  // by a signal
        TimedOut
    };

    // Listens to reports, and to requests too if asked to.
    PinWatch(const Options& options, BusLink::Hear hear);

    // Reads the pins until they are answered or the waiting time of the options is over. Outputs
    // are read again at this interval in seconds, inputs, which are reported, ten times less often:
    // changes of an output by the control server itself are not heard. 0: not again.
    void Ask(const std::vector<PinRef>& pins, double every);

    // Reads all pins with names once, so that the earlier level of a change is known. Missing
    // answers are not noted.
    void AskForNamed();

    // Waits for an event.
    Event Wait(TimePoint deadline);

    // About the last Wait() that returned Heard: the message (null if there was none), what
    // changed, whether the message is the second copy of another, and whether it answers the first
    // read.
    const Traffic* Message() const { return m_has_message ? &m_traffic : nullptr; }
    const std::vector<PinChange>& Changes() const { return m_changes; }
    bool IsRepeat() const { return m_is_repeat; }
    bool IsFirstAnswer() const { return m_is_first_answer; }

    const BusLink::Change& LinkChange() const { return m_link.LastChange(); }

    // Whether all pins were answered, or no more answers can be expected.
    bool IsAsked() const { return !m_question || m_question->IsOver(); }

    const PinStates& States() const { return m_states; }
    BusLink& Link() { return m_link; }

private:
    TimePoint Tend();
    void AskAgain();
    void TakeMessage();
    void Send(const std::vector<uint32_t>& tags);
    void NoteLimit();

    const Options& m_options;
    Signals m_signals;
    BusLink m_link;
    PinStates m_states;
    RepeatFilter m_repeats;
    std::optional<Question> m_question;
    bool m_told_missing = false;  // or nobody wants to know
    const uint32_t m_id;
    std::vector<uint32_t> m_inputs;
    std::vector<uint32_t> m_outputs;
    double m_every = 0;
    TimePoint m_ask_again = TimePoint::max();
    int m_rounds = 0;
    bool m_told_limit = false;

    Traffic m_traffic;
    bool m_has_message = false;
    bool m_is_repeat = false;
    bool m_is_first_answer = false;
    std::vector<PinChange> m_changes;
};
