// watch and record: the same messages, to standard output or to a file.

#include <algorithm>

#include "tools/base/Signals.h"
#include "tools/bus/Question.h"
#include "tools/bus/RepeatFilter.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

Output::Form FormOf(const Options& options) {
    if (options.json || !options.file.empty()) {
        return Output::Form::Json;
    }
    return options.console.verbose ? Output::Form::FullText : Output::Form::Text;
}

class Watch {
public:
    explicit Watch(const Options& options)
        : m_options(options),
          m_output(options.file.empty() ? "-" : options.file, FormOf(options)),
          m_link(options.bus),
          m_end(options.seconds ? After(*options.seconds) : TimePoint::max()),
          m_asking(!options.pins.empty()) {
        m_link.Listen(BusLink::Hear::Reports);
        if (m_asking) {
            m_question.emplace(m_link, options.pins);
        }
    }

    int Run();

private:
    TimePoint Ask();
    bool IsWanted(const CMessage& message) const;
    void Show(const Traffic& traffic);
    bool IsComplete() const { return m_options.count && m_shown >= *m_options.count; }

    const Options& m_options;
    Output m_output;
    Signals m_signals;
    BusLink m_link;
    const TimePoint m_end;
    std::optional<Question> m_question;
    bool m_asking;
    RepeatFilter m_repeats;
    unsigned long m_shown = 0;
};

int Watch::Run() {
    Traffic traffic;
    while (!IsComplete()) {
        if (Now() >= m_end) {
            return m_options.count ? STATUS_NO_ANSWER : STATUS_DONE;
        }
        const BusLink::Event event = m_link.Wait(traffic, std::min(Ask(), m_end), m_signals.Get());
        if (event == BusLink::Event::Other) {
            break;
        }
        if (event == BusLink::Event::Changed) {
            m_options.console.Note(m_link.LastChange().text);
        }
        if (event == BusLink::Event::Heard) {
            Show(traffic);
        }
    }
    return STATUS_DONE;
}

// Asks for the present state until that is answered or not to be had. Returns when to call again.
TimePoint Watch::Ask() {
    if (!m_asking) {
        return TimePoint::max();
    }
    if (!m_question->IsOver()) {
        m_question->AskWhenDue();
        return m_question->NextTime();
    }
    m_asking = false;
    const std::string missing = m_question->Missing();
    if (!missing.empty()) {
        m_options.console.Note("no answer for " + missing);
    }
    return TimePoint::max();
}

bool Watch::IsWanted(const CMessage& message) const {
    if (m_options.pins.empty()) {
        return true;
    }
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        for (const PinRef& pins : m_options.pins) {
            if (pins.Matches(message.GetItem(i)->m_nTag)) {
                return true;
            }
        }
    }
    return false;
}

void Watch::Show(const Traffic& traffic) {
    if (!IsWanted(traffic.message) || (!m_options.all && m_repeats.IsRepeat(traffic, Now()))) {
        return;
    }
    m_output.Write(traffic);
    const bool first_state = m_question && m_question->IsAnswer(traffic.message);
    if (first_state) {
        m_question->Take(traffic.message);
    } else {
        ++m_shown;
    }
}

}  // namespace

int RunWatch(const Options& options) {
    return Watch(options).Run();
}
