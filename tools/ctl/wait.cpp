#include <algorithm>

#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/ctl/PinWatch.h"

namespace {

const double ASK_EVERY = 0.25;  // seconds, for outputs

class Wait {
public:
    explicit Wait(const Options& options)
        : m_options(options),
          m_output(options),
          m_watch(options, ASK_EVERY, false),
          m_edges(options.conditions.size()) {
        std::vector<PinRef> pins;
        for (const PinCondition& condition : options.conditions) {
            pins.push_back({condition.tag >> 8, static_cast<uint8_t>(condition.tag)});
        }
        m_watch.Ask(pins);
    }

    int Run();

private:
    bool Holds(size_t i) const;
    bool IsOver() const;
    void NoteEdges();
    void Print();
    std::string Reason(const PinCondition& condition) const;

    const Options& m_options;
    Output m_output;
    PinWatch m_watch;
    std::vector<bool> m_edges;  // conditions that became true during the wait
};

int Wait::Run() {
    const TimePoint end = m_options.seconds ? After(*m_options.seconds) : TimePoint::max();
    while (!IsOver()) {
        switch (m_watch.Wait(end)) {
            case PinWatch::Event::Heard:
                NoteEdges();
                break;
            case PinWatch::Event::Stopped:
                m_options.console.Note("stopped by a signal");
                return STATUS_FAILED;
            case PinWatch::Event::TimedOut:
                for (size_t i = 0; i < m_options.conditions.size(); ++i) {
                    if (!Holds(i)) {
                        m_options.console.Error(Reason(m_options.conditions[i]));
                    }
                }
                Print();
                return STATUS_NO_ANSWER;
            default:
                break;
        }
    }
    Print();
    return STATUS_DONE;
}

// A level that was only written is not known.
bool Wait::Holds(size_t i) const {
    const PinCondition& condition = m_options.conditions[i];
    const PinState* const state = m_watch.States().Find(condition.tag);
    const bool holds = state->status == PinStatus::Told && state->level == condition.level;
    return m_options.edge ? m_edges[i] : holds;
}

bool Wait::IsOver() const {
    size_t holding = 0;
    for (size_t i = 0; i < m_options.conditions.size(); ++i) {
        holding += Holds(i) ? 1 : 0;
    }
    return m_options.any ? holding > 0 : holding == m_options.conditions.size();
}

// A change is a told level after another known one.
void Wait::NoteEdges() {
    for (const PinChange& change : m_watch.Changes()) {
        const PinState* const state = m_watch.States().Find(change.tag);
        for (size_t i = 0; i < m_options.conditions.size(); ++i) {
            const PinCondition& condition = m_options.conditions[i];
            if (change.tag == condition.tag && change.status == PinStatus::Told &&
                change.after == condition.level && state->seen_changing) {
                m_edges[i] = true;
            }
        }
    }
}

void Wait::Print() {
    std::vector<PinFact> facts;
    for (const PinCondition& condition : m_options.conditions) {
        const PinState* const state = m_watch.States().Find(condition.tag);
        const bool told = state->status == PinStatus::Told;
        facts.push_back({condition.tag, told ? state->level : std::nullopt,
                         told ? state->told->time : TimeOfDay(), told ? state->told->host : 0});
    }
    m_output.Write(facts);
}

std::string Wait::Reason(const PinCondition& condition) const {
    const PinState* const state = m_watch.States().Find(condition.tag);
    const std::string name = m_options.names.Label(condition.tag);
    if (state->status == PinStatus::Written) {
        return name + " was written " + LevelText(state->level) + ", and is not confirmed";
    }
    if (!state->level) {
        return name + ": no answer: no device on the bus has " + AddressText(condition.tag >> 8) +
               ", or its control server is away";
    }
    return name + (state->level == condition.level ? " did not change to " : " is not ") +
           LevelText(condition.level) +
           (!IsInput(condition.tag) && condition.level == Level::Low
                ? "; outputs of channels 9 to 32 are always answered H"
                : "");
}

}  // namespace

int RunWait(const Options& options) {
    return Wait(options).Run();
}
