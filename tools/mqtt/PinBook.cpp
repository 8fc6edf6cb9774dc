#include "tools/mqtt/PinBook.h"

#include <algorithm>

namespace {

const int MOST_AT_ONCE = 500;       // messages, before others have their turn
const size_t MOST_CHANGES = 10000;  // waiting to be published
const size_t MOST_DEVICES = 1000;
const int SILENT_ROUNDS = 3;
const double LOOK_EVERY = 1;  // seconds

}  // namespace

PinBook::PinBook(const MqttConfig& config)
    : m_config(config),
      m_link(config.bus),
      m_id(NewRequestId()),
      m_round(After(config.ask_every)),
      m_look(After(LOOK_EVERY)),
      m_random(std::random_device()()) {
    m_link.Listen(BusLink::Hear::ReportsAndRequests);
    for (const PinRef& pins : config.pins) {
        for (const uint32_t tag : pins.Tags()) {
            m_states.Want(tag);
        }
    }
}

TimePoint PinBook::NextTime() const {
    const TimePoint due = std::min({m_link.NextTime(), m_states.NextTime(), m_round, m_look});
    return m_question ? std::min(due, m_question->NextTime()) : due;
}

void PinBook::Serve() {
    Traffic traffic;
    for (int i = 0; i < MOST_AT_ONCE && m_link.Take(traffic); ++i) {
        Take(traffic);
    }
    if (const auto change = m_link.Tend()) {
        m_up = change->up;
        m_note = change->text;
    }
    try {
        Tend();
    } catch (const BusError& error) {
        m_note = error.what();
    }
}

void PinBook::Take(const Traffic& traffic) {
    const Kind kind = traffic.GetKind();
    if (kind != Kind::Report && kind != Kind::Reply && kind != Kind::Write) {
        return;
    }
    if (kind != Kind::Write) {
        NoteDevice(traffic);
    }
    if (m_question) {
        m_question->Take(traffic.message);
    }
    const std::vector<PinChange> changes = m_states.Take(traffic, Now());
    // A second copy changes nothing, but a second write does.
    if (kind != Kind::Write || !m_repeats.IsRepeat(traffic, Now())) {
        Add(changes);
    }
    for (unsigned int i = 0; i < traffic.message.GetItemCount(); ++i) {
        const uint32_t tag = traffic.message.GetItem(i)->m_nTag;
        if (m_silent.erase(tag) > 0) {
            m_changed.insert(tag);
        }
    }
    if (kind == Kind::Reply && on_reply) {
        on_reply(traffic);
    }
}

void PinBook::NoteDevice(const Traffic& traffic) {
    const auto host = static_cast<uint32_t>(traffic.message.GetHost());
    const auto known = m_devices.find(host);
    if (known == m_devices.end()) {
        if (m_devices.size() < MOST_DEVICES) {
            m_devices.emplace(host, Device{traffic.time, Now()});
            m_changed_devices.insert(host);
        }
        return;
    }
    known->second.heard = Now();
    if (known->second.silent) {
        known->second.silent = false;
        known->second.since = traffic.time;
        m_changed_devices.insert(host);
    }
}

void PinBook::Add(const std::vector<PinChange>& changes) {
    for (const PinChange& change : changes) {
        m_changed.insert(change.tag);
        m_changes.push_back(change);
        if (m_changes.size() > MOST_CHANGES) {
            m_changes.pop_front();
            ++m_dropped;
        }
    }
}

void PinBook::Tend() {
    std::vector<uint32_t> ask;
    Add(m_states.Tend(Now(), ask));
    if (Now() >= m_round) {
        m_round = After(m_config.ask_every);
        FindSilent();
    }
    if (Now() >= m_look) {
        m_look = After(LOOK_EVERY);
        FindLost();
    }
    if (m_question) {
        if (m_question->IsOver()) {
            EndQuestion();
        } else {
            m_question->AskWhenDue();
        }
    }
    AskForPins(m_link, ask, m_id);
}

void PinBook::AskAll(const std::set<uint32_t>& others) {
    std::vector<PinRef> pins;
    m_states.ForEach([&](uint32_t tag, const PinState&) {
        if (m_silent.count(tag) == 0) {
            pins.push_back({tag >> 8, static_cast<uint8_t>(tag & 0xFF)});
        }
    });
    for (const uint32_t tag : others) {
        if (m_states.Find(tag) == nullptr) {
            pins.push_back({tag >> 8, static_cast<uint8_t>(tag & 0xFF)});
        }
    }
    for (const uint32_t tag : m_silent) {
        m_states.AskAt(tag, Now());
    }
    m_asked = Now();
    m_question.emplace(m_link, pins);
}

void PinBook::EndQuestion() {
    m_question.reset();
    m_states.ForEach([this](uint32_t tag, const PinState& state) {
        if (!state.told || state.told->at < m_asked) {
            Silence(tag);
        }
    });
}

// The pins of the next round are read one after the other.
void PinBook::FindSilent() {
    const TimePoint limit = After(-SILENT_ROUNDS * m_config.ask_every);
    m_states.ForEach([&](uint32_t tag, const PinState& state) {
        const bool heard =
            (state.told && state.told->at > limit) || (state.written && state.written->at > limit);
        if (state.level && !heard) {
            Silence(tag);
        }
    });
    AskWithin(m_config.ask_every / 2);
    for (auto& [host, device] : m_devices) {
        if (!device.silent && device.heard < limit) {
            device.silent = true;
            device.since = TimeOfDay();
            m_changed_devices.insert(host);
        }
    }
}

// Any pin may have changed in what was lost.
void PinBook::FindLost() {
    const uint64_t lost = m_link.Lost();
    if (lost != m_lost) {
        m_note = "the bus is too fast: " + std::to_string(lost - m_lost) +
                 " datagrams were lost, all pins are read";
        m_lost = lost;
        AskWithin(LOOK_EVERY);
    }
}

void PinBook::AskWithin(double seconds) {
    std::vector<uint32_t> tags;
    m_states.ForEach([&tags](uint32_t tag, const PinState&) { tags.push_back(tag); });
    std::uniform_real_distribution<double> spread(0, seconds);
    for (const uint32_t tag : tags) {
        m_states.AskAt(tag, After(spread(m_random)));
    }
}

void PinBook::Silence(uint32_t tag) {
    if (m_silent.insert(tag).second) {
        m_changed.insert(tag);
    }
}

void PinBook::TellAll() {
    m_states.ForEach([this](uint32_t tag, const PinState&) { m_changed.insert(tag); });
    for (const auto& device : m_devices) {
        m_changed_devices.insert(device.first);
    }
}

PinView PinBook::ViewOf(uint32_t tag) const {
    PinView view;
    const PinState* const state = m_states.Find(tag);
    if (state == nullptr || !state->level || m_silent.count(tag) > 0) {
        return view;
    }
    view.level = state->level;
    view.status = state->status;
    view.since = state->since->time;
    view.host = state->since->host == 0 ? std::string() : HostText(state->since->host);
    return view;
}

void PinBook::Write(uint32_t tag, const WriteValue& value) {
    CMessage message(16, 16);
    message.SetId(ID_WRITE);
    message.SetByte(tag, value.Byte());
    m_link.Send(message, m_link.Settings().send_port, false);
}

void PinBook::Ask(uint32_t tag, uint32_t request_id) {
    AskForPins(m_link, {tag}, request_id);
}

std::string PinBook::TakeNote() {
    std::string note;
    note.swap(m_note);
    return note;
}
