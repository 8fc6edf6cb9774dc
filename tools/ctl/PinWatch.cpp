#include "tools/ctl/PinWatch.h"

#include <poll.h>

#include <algorithm>
#include <csignal>

#include "tools/ctl/Options.h"

namespace {

const int INPUTS_EVERY = 10;  // rounds of reads

// Without pins, those that are heard of are read: nobody may answer for them.
FollowPolicy PolicyFor(const Options& options, double every, bool is_passive) {
    FollowPolicy policy;
    policy.reads = options.pins.empty() && !is_passive ? FollowPolicy::Reads::Heard
                                                       : FollowPolicy::Reads::Wanted;
    policy.every = every;
    policy.input_rounds = INPUTS_EVERY;
    policy.reads_written = !is_passive;
    return policy;
}

}  // namespace

PinWatch::PinWatch(const Options& options, double every, bool is_passive)
    : m_options(options),
      m_signals({options.max_size || options.keep ? SIGHUP : SIGTERM}),
      m_follower(options.bus, PolicyFor(options, every, is_passive)) {
    m_follower.on_message = [this](const Traffic& traffic, bool is_repeat) {
        m_message = &traffic;
        m_is_repeat = is_repeat;
        m_is_first_answer = m_follower.IsAnswer(traffic.message);
    };
    m_follower.on_change = [this](const PinChange& change) { m_changes.push_back(change); };
    m_follower.on_link = [this](const BusLink::Change& change) {
        m_options.console.Note(change.text);
        m_link_change = change;
        m_has_link_change = true;
    };
    m_follower.on_trouble = [this](const std::string& text) { m_options.console.Detail(text); };
}

void PinWatch::Ask(const std::vector<PinRef>& pins) {
    for (const PinRef& ref : pins) {
        m_follower.Want(ref);
    }
    m_follower.Read(pins);
    m_told_missing = false;
}

void PinWatch::AskForNamed() {
    std::vector<PinRef> pins;
    for (const Names::Entry& entry : m_options.names.All()) {
        pins.push_back(entry.pins);
    }
    if (!pins.empty()) {
        Ask(pins);
        m_told_missing = true;
    }
}

PinWatch::Event PinWatch::Wait(TimePoint deadline) {
    std::vector<pollfd> fds = {{m_signals.Get(), POLLIN, 0}};
    for (const int descriptor : m_follower.Descriptors()) {
        fds.push_back({descriptor, POLLIN, 0});
    }
    for (;;) {
        if (const auto signal = m_signals.Take()) {
            return *signal == SIGHUP ? Event::HungUp : Event::Stopped;
        }
        m_message = nullptr;
        m_changes.clear();
        m_follower.Serve(1);
        NoteMissing();
        NoteLimit();
        if (std::exchange(m_has_link_change, false)) {
            return Event::Link;
        }
        if (m_message != nullptr || !m_changes.empty()) {
            return Event::Heard;
        }
        if (Now() >= deadline) {
            return Event::TimedOut;
        }
        poll(fds.data(), fds.size(), MillisecondsUntil(std::min(deadline, m_follower.NextTime())));
    }
}

void PinWatch::NoteMissing() {
    if (m_told_missing || m_follower.IsReading()) {
        return;
    }
    m_told_missing = true;
    const std::string missing = m_follower.Missing(m_options.names);
    if (!missing.empty()) {
        m_options.console.Note("no answer for " + missing);
    }
    for (const auto& [address, hosts] : m_follower.Shared()) {
        m_options.console.Note(SharedText(address, hosts, m_options.names));
    }
}

void PinWatch::NoteLimit() {
    if (m_follower.PassedOver() > 0 && !m_told_limit) {
        m_told_limit = true;
        m_options.console.Note("too many pins are written or told: further ones are not followed");
    }
}
