// watch and record: messages or changes, to standard output or to a file.

#include <algorithm>
#include <functional>
#include <memory>

#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/ctl/PinWatch.h"

namespace {

const double ASK_EVERY = 1;  // seconds; for outputs that are watched by name

class Watch {
public:
    explicit Watch(const Options& options)
        : m_options(options),
          m_output(options.file.empty() ? std::make_unique<Output>(options)
                                        : std::make_unique<Output>(options, options.file)),
          m_watch(options, options.changes ? ASK_EVERY : 0, !options.changes),
          m_end(options.seconds ? After(*options.seconds) : TimePoint::max()) {
        if (!options.pins.empty()) {
            m_watch.Ask(options.pins);
        } else if (options.changes) {
            m_watch.AskForNamed();
        }
        Beat();
    }

    int Run();

private:
    bool IsWanted(uint32_t tag) const;
    bool IsWanted(const CMessage& message) const;
    bool IsFirst(const PinChange& change) const;
    bool IsCounted(const PinChange& change) const;
    bool IsShown(const PinChange& change) const;
    void ShowMessage();
    void ShowChanges();
    void CountMessage();
    int End() const;
    void Beat();
    bool IsComplete() const { return m_options.count && m_counted >= *m_options.count; }

    const Options& m_options;
    std::unique_ptr<Output> m_output;
    PinWatch m_watch;
    const TimePoint m_end;
    TimePoint m_beat = TimePoint::max();
    unsigned long m_counted = 0;
};

int Watch::Run() {
    while (!IsComplete()) {
        if (Now() >= m_end) {
            return End();
        }
        if (Now() >= m_beat) {
            m_output->WriteEvent("heartbeat", "heartbeat");
            Beat();
        }
        switch (m_watch.Wait(std::min(m_end, m_beat))) {
            case PinWatch::Event::Stopped:
                return STATUS_DONE;
            case PinWatch::Event::HungUp:
                m_output->Rotate();
                break;
            case PinWatch::Event::Link:
                if (m_output->IsJson()) {
                    m_output->WriteEvent("link", m_watch.LinkChange().text);
                }
                break;
            case PinWatch::Event::Heard:
                m_options.changes ? ShowChanges() : ShowMessage();
                break;
            default:
                break;
        }
    }
    return STATUS_DONE;
}

// The time is over.
int Watch::End() const {
    if (!m_options.count) {
        return STATUS_DONE;
    }
    m_options.console.Error("only " + std::to_string(m_counted) + " of " +
                            std::to_string(*m_options.count) + " came in time");
    return STATUS_NO_ANSWER;
}

void Watch::Beat() {
    m_beat = m_options.heartbeat ? After(*m_options.heartbeat) : TimePoint::max();
}

bool Watch::IsWanted(uint32_t tag) const {
    return m_options.pins.empty() ||
           std::any_of(m_options.pins.begin(), m_options.pins.end(),
                       [tag](const PinRef& pins) { return pins.Matches(tag); });
}

bool Watch::IsWanted(const CMessage& message) const {
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        if (IsWanted(message.GetItem(i)->m_nTag)) {
            return true;
        }
    }
    return m_options.pins.empty();
}

// The initial state, which is read first, is no change; nor is what is told again after a while in
// which nobody answered.
bool Watch::IsFirst(const PinChange& change) const {
    return !change.before && change.cause == PinChange::Cause::Answered &&
           !m_watch.States().Find(change.tag)->seen_changing;
}

bool Watch::IsCounted(const PinChange& change) const {
    return IsWanted(change.tag) && change.IsNewLevel() && change.after && !IsFirst(change);
}

// For pins that the user named, the initial state is shown.
bool Watch::IsShown(const PinChange& change) const {
    if (!IsWanted(change.tag) || (IsFirst(change) && m_options.pins.empty())) {
        return false;
    }
    return change.IsNewLevel() || change.cause == PinChange::Cause::Written || change.denied ||
           m_options.console.verbose;
}

void Watch::ShowMessage() {
    const Traffic* const traffic = m_watch.Message();
    if (traffic == nullptr || !IsWanted(traffic->message)) {
        return;
    }
    if (m_options.all || (!m_watch.IsRepeat() && traffic->GetKind() != Kind::Read)) {
        m_output->Write(
            *traffic, m_options.pins.empty() ? std::function<bool(uint32_t)>()
                                             : [this](uint32_t tag) { return IsWanted(tag); });
        CountMessage();
    }
}

// Without pins every message counts, with pins those that change one.
void Watch::CountMessage() {
    const std::vector<PinChange>& changes = m_watch.Changes();
    const bool counts = m_options.pins.empty() ||
                        std::any_of(changes.begin(), changes.end(),
                                    [this](const PinChange& change) { return IsCounted(change); });
    m_counted += counts && !m_watch.IsFirstAnswer() ? 1 : 0;
}

void Watch::ShowChanges() {
    for (const PinChange& change : m_watch.Changes()) {
        if (IsComplete()) {
            return;
        }
        if (IsShown(change)) {
            m_output->Write(change);
        }
        m_counted += IsCounted(change) ? 1 : 0;
    }
}

}  // namespace

int RunWatch(const Options& options) {
    return Watch(options).Run();
}

int RunRecord(const Options& options) {
    if (options.file == "-" && (options.max_size || options.keep)) {
        throw Failure(STATUS_USAGE, "--max-size and --keep need a file, not standard output");
    }
    return Watch(options).Run();
}
