#include "tools/bus/PinStates.h"

#include <algorithm>

#include "tools/base/Random.h"
#include "tools/bus/PinName.h"

namespace {

const int QUESTIONS = 3;            // after a write
const double FIRST_DELAY = 0.06;    // seconds from a write to the first question
const double JITTER = 0.06;         // added, so that not all listeners read at once
const double NEXT_DELAY = 0.4;      // to the next ones
const double ANSWER_TIME = 1;       // after the last question
const size_t MOST_QUESTIONS = 500;  // that are sent at once
const double PAUSE = 0.02;          // and then a pause

const double FIRST_DENIED_PAUSE = 5;  // seconds; each is twice as long as the one before
const int LONGER_PAUSES = 7;          // up to 640 s

}  // namespace

double DeniedPause(int times) {
    return FIRST_DENIED_PAUSE * (1 << std::clamp(times - 1, 0, LONGER_PAUSES));
}

PinStates::PinStates(size_t limit, size_t share)
    : m_limit(limit), m_share(share), m_random(RandomBits()) {}

void PinStates::Want(uint32_t tag) {
    Pin& pin = m_pins[tag];
    if (pin.host) {
        --m_unwanted;
        --m_shares[*pin.host];
        pin.host.reset();
    }
}

// The host's message is about the pin. Null: there is no room.
PinStates::Pin* PinStates::Get(uint32_t tag, uint32_t host) {
    const auto known = m_pins.find(tag);
    if (known != m_pins.end()) {
        return &known->second;
    }
    const auto share = m_shares.find(host);
    if (m_unwanted >= m_limit || (share != m_shares.end() && share->second >= m_share)) {
        ++m_passed_over;
        return nullptr;
    }
    ++m_unwanted;
    ++m_shares[host];
    Pin& pin = m_pins[tag];
    pin.host = host;
    return &pin;
}

std::vector<PinChange> PinStates::Take(const Traffic& traffic, TimePoint now) {
    std::vector<PinChange> changes;
    const Kind kind = traffic.GetKind();
    const Heard heard = {now, traffic.time, static_cast<uint32_t>(traffic.message.GetHost())};
    for (unsigned int i = 0; i < traffic.message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *traffic.message.GetItem(i);
        const PinValue value = PinValueOf(kind, item);
        // Devices do not set inputs.
        if (!value.level || !IsPinItem(item) || (kind == Kind::Write && IsInput(item.m_nTag))) {
            continue;
        }
        Pin* const pin = Get(item.m_nTag, heard.host);
        if (pin == nullptr) {
            continue;
        }
        const std::optional<PinChange> change =
            kind == Kind::Write ? Write(item.m_nTag, *pin, value, heard)
                                : Tell(item.m_nTag, *pin, *value.level, kind, heard);
        if (change) {
            changes.push_back(*change);
        }
        Schedule(item.m_nTag, *pin);
    }
    return changes;
}

// Whether a device's answer may be older than the last write, or the device may not know the pin.
bool PinStates::IsDoubtful(const Pin& pin, Level level, Kind kind, TimePoint now) const {
    const PinState& state = pin.state;
    if (kind != Kind::Reply || state.status != PinStatus::Written || level == state.level ||
        now >= state.until) {
        return false;
    }
    return pin.questions > 0 || (level == Level::High && !pin.follows);
}

std::optional<PinChange> PinStates::Tell(uint32_t tag, Pin& pin, Level level, Kind kind,
                                         const Heard& heard) {
    PinState& state = pin.state;
    const PinState before = state;
    const bool doubtful = IsDoubtful(pin, level, kind, heard.at);
    state.told = heard;
    pin.unanswered = 0;
    pin.follows = pin.follows || level == Level::Low;
    if (doubtful) {
        state.denied = pin.questions == 0;
    } else {
        state.denied = false;
        state.status = PinStatus::Told;
        SetLevel(pin, level, heard);
        pin.questions = 0;
        pin.ask = TimePoint::max();
        pin.give_up = TimePoint::max();
        if (heard.at >= state.until || level != before.level) {
            state.until = TimePoint::max();
        }
    }
    if (state.level == before.level && state.status == before.status &&
        state.denied == before.denied) {
        return std::nullopt;
    }
    const PinChange::Cause cause =
        kind == Kind::Reply ? PinChange::Cause::Answered : PinChange::Cause::Reported;
    return PinChange{tag,         cause,        heard.time,   heard.host, before.level,
                     state.level, state.status, state.denied, 0};
}

std::optional<PinChange> PinStates::Write(uint32_t tag, Pin& pin, const PinValue& value,
                                          const Heard& heard) {
    PinState& state = pin.state;
    const std::optional<Level> before = state.level;
    state.status = PinStatus::Written;
    state.denied = false;
    state.written = heard;
    state.written_level = *value.level;
    state.duration_ms = value.duration_ms;
    state.until =
        value.duration_ms == 0 ? TimePoint::max() : Later(heard.at, value.duration_ms / 1000.0);
    SetLevel(pin, value.level, heard);
    pin.give_up = TimePoint::max();
    BeginAsking(pin, heard.at);
    return PinChange{
        tag,   PinChange::Cause::Written, heard.time, heard.host, before, state.level, state.status,
        false, value.duration_ms};
}

void PinStates::SetLevel(Pin& pin, std::optional<Level> level, const Heard& heard) {
    PinState& state = pin.state;
    if (state.level != level) {
        state.seen_changing = pin.last && pin.last != level;
        state.since = heard;
        state.level = level;
        pin.last = level ? level : pin.last;
    }
}

double PinStates::Delay() {
    return FIRST_DELAY + std::uniform_real_distribution<double>(0, JITTER)(m_random);
}

// A read that is due soon is not postponed: writes may come faster than answers.
void PinStates::BeginAsking(Pin& pin, TimePoint now) {
    pin.questions = QUESTIONS;
    pin.ask = std::min(pin.ask, Later(now, Delay()));
}

void PinStates::Schedule(uint32_t tag, Pin& pin) {
    const TimePoint over = pin.give_up == TimePoint::max() ? pin.state.until : TimePoint::max();
    const TimePoint due = std::min({pin.ask, pin.give_up, over});
    if (due == pin.due) {
        return;
    }
    m_due.erase({pin.due, tag});
    pin.due = due;
    if (due != TimePoint::max()) {
        m_due.insert({due, tag});
    }
}

std::vector<PinChange> PinStates::Tend(TimePoint now, std::vector<uint32_t>& ask) {
    std::vector<PinChange> changes;
    const size_t before = ask.size();
    while (now >= m_pause && !m_due.empty() && m_due.begin()->first <= now) {
        const uint32_t tag = m_due.begin()->second;
        Pin& pin = m_pins.at(tag);
        if (const std::optional<PinChange> change = Pass(tag, pin, now, ask)) {
            changes.push_back(*change);
        }
        Schedule(tag, pin);
        if (ask.size() - before >= MOST_QUESTIONS) {
            m_pause = Later(now, PAUSE);
        }
    }
    return changes;
}

// Does what is due for a pin.
std::optional<PinChange> PinStates::Pass(uint32_t tag, Pin& pin, TimePoint now,
                                         std::vector<uint32_t>& ask) {
    PinState& state = pin.state;
    if (pin.give_up <= now) {
        return Forget(tag, pin, now);
    }
    if (state.until <= now && pin.give_up == TimePoint::max()) {
        // The write's duration has passed: only an answer can show the pin's level.
        state.status = PinStatus::Written;
        pin.ask = TimePoint::max();
        BeginAsking(pin, now);
        pin.give_up = Later(now, FIRST_DELAY + JITTER + (QUESTIONS - 1) * NEXT_DELAY + ANSWER_TIME);
    }
    if (pin.ask <= now) {
        ask.push_back(tag);
        pin.questions = std::max(pin.questions - 1, 0);
        pin.ask = pin.questions > 0 ? Later(now, NEXT_DELAY) : TimePoint::max();
    }
    return std::nullopt;
}

PinChange PinStates::Forget(uint32_t tag, Pin& pin, TimePoint now) {
    PinState& state = pin.state;
    const std::optional<Level> before = state.level;
    const double time = TimeOfDay();
    state.status = PinStatus::Unknown;
    state.denied = false;
    state.until = TimePoint::max();
    pin.questions = 0;
    pin.ask = TimePoint::max();
    pin.give_up = TimePoint::max();
    SetLevel(pin, std::nullopt, {now, time, 0});
    return {tag, PinChange::Cause::Forgotten, time, 0, before, std::nullopt, state.status, false,
            0};
}

std::optional<PinChange> PinStates::Forget(uint32_t tag, TimePoint now) {
    const auto found = m_pins.find(tag);
    if (found == m_pins.end() || found->second.state.status == PinStatus::Unknown) {
        return std::nullopt;
    }
    const PinChange change = Forget(tag, found->second, now);
    Schedule(tag, found->second);
    return change;
}

std::optional<PinChange> PinStates::NoteRead(uint32_t tag, TimePoint now, int most) {
    const auto found = m_pins.find(tag);
    if (found == m_pins.end()) {
        return std::nullopt;
    }
    int& unanswered = found->second.unanswered;
    if (unanswered >= most) {
        return Forget(tag, now);
    }
    ++unanswered;
    return std::nullopt;
}

TimePoint PinStates::NextTime() const {
    return m_due.empty() ? TimePoint::max() : std::max(m_due.begin()->first, m_pause);
}

const PinState* PinStates::Find(uint32_t tag) const {
    const auto pin = m_pins.find(tag);
    return pin == m_pins.end() ? nullptr : &pin->second.state;
}

void PinStates::ForEach(
    const std::function<void(uint32_t tag, const PinState& state)>& visit) const {
    for (const auto& [tag, pin] : m_pins) {
        visit(tag, pin.state);
    }
}

std::vector<uint32_t> PinStates::TagsOf(uint32_t address) const {
    std::vector<uint32_t> tags;
    for (auto pin = m_pins.lower_bound(address << 8);
         pin != m_pins.end() && pin->first >> 8 == address; ++pin) {
        tags.push_back(pin->first);
    }
    return tags;
}
