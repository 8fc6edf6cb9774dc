#include "tools/ctl/PinWatch.h"

#include <algorithm>

#include "tools/ctl/Options.h"

namespace {

const int INPUTS_EVERY = 10;  // rounds of reads

}  // namespace

PinWatch::PinWatch(const Options& options, BusLink::Hear hear)
    : m_options(options), m_link(options.bus), m_id(NewRequestId()) {
    m_link.Listen(hear);
}

void PinWatch::Ask(const std::vector<PinRef>& pins, double every) {
    for (const PinRef& ref : pins) {
        for (const uint32_t tag : ref.Tags()) {
            m_states.Want(tag);
            (IsInput(tag) ? m_inputs : m_outputs).push_back(tag);
        }
    }
    m_question.emplace(m_link, pins);
    m_every = every;
    m_ask_again = every > 0 ? After(every) : TimePoint::max();
}

void PinWatch::AskForNamed() {
    std::vector<PinRef> pins;
    for (const Names::Entry& entry : m_options.names.All()) {
        pins.push_back(entry.pins);
    }
    if (!pins.empty()) {
        Ask(pins, 0);
        m_told_missing = true;
    }
}

PinWatch::Event PinWatch::Wait(TimePoint deadline) {
    for (;;) {
        m_changes.clear();
        m_has_message = false;
        const TimePoint due = Tend();
        if (!m_changes.empty()) {
            return Event::Heard;
        }
        switch (m_link.Wait(m_traffic, std::min(deadline, due), m_signals.Get())) {
            case BusLink::Event::Heard:
                TakeMessage();
                return Event::Heard;
            case BusLink::Event::Changed:
                m_options.console.Note(m_link.LastChange().text);
                return Event::Link;
            case BusLink::Event::Other:
                return Event::Stopped;
            default:
                if (Now() >= deadline) {
                    return Event::TimedOut;
                }
        }
    }
}

void PinWatch::TakeMessage() {
    m_has_message = true;
    m_changes = m_states.Take(m_traffic, Now());
    m_is_repeat = m_repeats.IsRepeat(m_traffic, Now());
    m_is_first_answer = m_question && m_question->IsAnswer(m_traffic.message);
    if (m_is_first_answer) {
        m_question->Take(m_traffic.message);
    }
    NoteLimit();
}

// Does what is due; returns when to call it again.
TimePoint PinWatch::Tend() {
    std::vector<uint32_t> ask;
    m_changes = m_states.Tend(Now(), ask);
    Send(ask);
    if (Now() >= m_ask_again) {
        AskAgain();
    }
    TimePoint due = std::min(m_states.NextTime(), m_ask_again);
    if (m_question && !m_question->IsOver()) {
        try {
            m_question->AskWhenDue();
        } catch (const BusError& error) {
            m_options.console.Detail(error.what());
        }
        return std::min(due, m_question->NextTime());
    }
    if (m_question && !m_told_missing) {
        m_told_missing = true;
        const std::string missing = m_question->Missing(m_options.names);
        if (!missing.empty()) {
            m_options.console.Note("no answer for " + missing);
        }
    }
    return due;
}

void PinWatch::AskAgain() {
    m_ask_again = After(m_every);
    Send(m_outputs);
    if (m_rounds++ % INPUTS_EVERY == 0) {
        Send(m_inputs);
    }
}

// The bus may be away for a while.
void PinWatch::Send(const std::vector<uint32_t>& tags) {
    try {
        AskForPins(m_link, tags, m_id);
    } catch (const BusError& error) {
        m_options.console.Detail(error.what());
    }
}

void PinWatch::NoteLimit() {
    if (m_states.PassedOver() > 0 && !m_told_limit) {
        m_told_limit = true;
        m_options.console.Note("more than " + std::to_string(PinStates::DEFAULT_LIMIT) +
                               " pins are written or told: further ones are not followed");
    }
}
