// on: runs a command when a pin gets a level.

#include <poll.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <utility>

#include "tools/base/Signals.h"
#include "tools/bus/PinFollower.h"
#include "tools/bus/PinJson.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Runner.h"

namespace {

const double READ_EVERY = 1;           // seconds, for an output
const unsigned int INPUT_ROUNDS = 10;  // inputs are reported, and read that much less often

FollowPolicy Policy() {
    FollowPolicy policy;
    policy.reads = FollowPolicy::Reads::Wanted;
    policy.every = READ_EVERY;
    policy.input_rounds = INPUT_ROUNDS;
    policy.keeps_trying = true;
    return policy;
}

class On {
public:
    explicit On(const Options& options)
        : m_options(options),
          m_condition(options.conditions[0]),
          m_signals({SIGCHLD}),
          m_follower(options.bus, Policy()),
          m_runner(options.runner, [this](const std::string& text) { Tell(text); }) {
        m_follower.on_change = [this](const PinChange& change) { Take(change); };
        m_follower.on_link = [this](const BusLink::Change& change) {
            change.up ? Tell(change.text) : TakeGap(change.text);
        };
        m_follower.on_trouble = [this](const std::string& text) { Tell(text); };
        const uint32_t tag = m_condition.tag;
        const PinRef pin = {tag >> 8, static_cast<uint8_t>(tag)};
        m_follower.Want(pin);
        m_follower.Read({pin});
    }

    int Run();

private:
    void Wait();
    void Take(const PinChange& change);
    void TakeLevel(const PinChange& change);
    void TakeGap(const std::string& reason);
    void TellMissing();
    void RunCommand();
    void Tell(const std::string& text) const { m_options.console.Error(text); }

    const Options& m_options;
    const PinCondition m_condition;
    Signals m_signals;
    PinFollower m_follower;
    Runner m_runner;
    std::optional<Level> m_level;        // that a device told last, also before a gap
    std::optional<PinChange> m_change;   // to the level, for which the command has not been run
    TimePoint m_due = TimePoint::max();  // when the level has held for long enough
    bool m_is_lost = false;              // in a gap
    bool m_told_missing = false;
    bool m_is_ending = false;
};

int On::Run() {
    if (!m_runner.HasProgram()) {
        throw Failure(STATUS_FAILED, "no program " + m_options.runner.command[0]);
    }
    bool is_done = false;  // with --once
    while (!m_is_ending && !(is_done && !m_runner.IsBusy())) {
        Wait();
        m_follower.Serve();
        if (Now() >= m_due && !is_done) {
            RunCommand();
            is_done = m_options.once;
        }
        m_runner.Serve();
        TellMissing();
    }
    m_runner.Stop();
    return is_done && m_runner.HasFailed() ? STATUS_FAILED : STATUS_DONE;
}

void On::Wait() {
    std::vector<pollfd> fds = {{m_signals.Get(), POLLIN, 0}};
    for (const int descriptor : m_follower.Descriptors()) {
        fds.push_back({descriptor, POLLIN, 0});
    }
    const TimePoint next = std::min({m_due, m_follower.NextTime(), m_runner.NextTime()});
    poll(fds.data(), fds.size(), MillisecondsUntil(next));
    while (const auto signal = m_signals.Take()) {
        m_is_ending = m_is_ending || *signal != SIGCHLD;
    }
}

// Only what a device tells counts.
void On::Take(const PinChange& change) {
    if (change.tag != m_condition.tag) {
        return;
    }
    if (change.status == PinStatus::Told) {
        TakeLevel(change);
    } else if (change.status == PinStatus::Unknown) {
        TakeGap(m_options.names.Label(change.tag) + ": nobody answers, its level is not known");
    }
}

// The first level is where it begins. A level that is told again after a gap is no change, but has
// to hold from then on.
void On::TakeLevel(const PinChange& change) {
    const std::optional<Level> before = std::exchange(m_level, change.after);
    if (std::exchange(m_is_lost, false)) {
        Tell(m_options.names.Label(change.tag) + " is known again: " + LevelText(change.after));
    }
    if (change.after != m_condition.level) {
        m_change.reset();
        m_due = TimePoint::max();
        return;
    }
    if (before && before != change.after) {
        m_change = change;
        m_change->before = before;  // that was told, not written
    }
    if (m_change && m_due == TimePoint::max()) {
        m_due = After(m_options.hold);
    }
}

void On::TakeGap(const std::string& reason) {
    m_is_lost = m_level.has_value();
    m_due = TimePoint::max();
    Tell(reason);
}

void On::TellMissing() {
    if (!m_told_missing && !m_follower.IsReading()) {
        m_told_missing = true;
        const std::string missing = m_follower.Missing(m_options.names);
        if (!missing.empty()) {
            Tell("no answer for " + missing);
        }
    }
}

void On::RunCommand() {
    const PinChange change = *m_change;
    m_change.reset();
    m_due = TimePoint::max();
    char since[40];
    snprintf(since, sizeof since, "%.3f", change.time);
    m_runner.Run(
        {{"PIN=" + PinText(change.tag), "NAME=" + m_options.names.NameOf(change.tag),
          std::string("LEVEL=") + LevelLetter(*change.after), std::string("SINCE=") + since,
          "HOST=" + (change.host == 0 ? "" : HostText(change.host))},
         ToJson(change, m_options.names) + "\n"});
}

}  // namespace

int RunOn(const Options& options) {
    return On(options).Run();
}
