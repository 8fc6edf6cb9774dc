// Listens to pins: what watch, wait and set --check have in common.
#pragma once

#include <optional>
#include <vector>

#include "tools/base/Signals.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/PinStates.h"
#include "tools/bus/Question.h"
#include "tools/bus/RepeatFilter.h"

struct Options;

// Asks for the pins that are named, keeps what is known about them up to date, and notes on the
// console what becomes of the interface and who does not answer. SIGINT and SIGTERM end waiting,
// not the program.
class PinWatch {
public:
    enum class Event {
        Heard,    // a message came, or pins changed by time alone
        Link,     // the interface changed
        Stopped,  // by a signal
        TimedOut
    };

    // Listens to reports, and to requests as well when that is asked for.
    PinWatch(const Options& options, BusLink::Hear hear);

    // Asks for the pins until they are answered or the wait of the options is over. Outputs are
    // asked for again every so many seconds, inputs, which are reported, ten times less often: of
    // what the control server itself does to an output, nothing is heard. 0: not again.
    void Ask(const std::vector<PinRef>& pins, double every);

    // Asks for all pins that have names, once, to know what a change is one from. Who does not
    // answer is not noted.
    void AskForNamed();

    // Waits for something to happen.
    Event Wait(TimePoint deadline);

    // Of the last Wait() that returned Heard: the message (null when there was none), what changed,
    // whether the message is the second copy of another, and whether it answers the first question.
    const Traffic* Message() const { return m_has_message ? &m_traffic : nullptr; }
    const std::vector<PinChange>& Changes() const { return m_changes; }
    bool IsRepeat() const { return m_is_repeat; }
    bool IsFirstAnswer() const { return m_is_first_answer; }

    const BusLink::Change& LinkChange() const { return m_link.LastChange(); }

    // Whether all pins were answered, or can't be hoped for any more.
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
