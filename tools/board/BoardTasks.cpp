// The board's own tasks: reading pins, watching the bus, following the control server.
#include <algorithm>

#include "tools/board/Board.h"
#include "tools/bus/PinName.h"
#include "tools/bus/Question.h"

namespace {

const int64_t ASK_PACE = 200;     // ms between two reads
const int64_t ASK_AGAIN = 10000;  // an address that answers
const int64_t ASK_SOON = 1000;    // one that did not
const unsigned ASK_AT_ONCE = 5;   // addresses in one read
const unsigned MAX_MISSES = 3;    // then it is missing
const int64_t LOOK_PACE = 1000;
const int64_t CONNECT_PACE = 3000;
const std::chrono::milliseconds CONNECT_LIMIT{2000};
const size_t MAX_ADDRESSES = 4000;

const char* const LINK_LOST = "the bus could not be heard";

}  // namespace

void Board::Tick() {
    const int64_t now = NowMs();
    if (now >= m_next_look || m_next_look > now + LOOK_PACE) {  // the clock may have been set
        m_next_look = now + LOOK_PACE;
        KeepLink(now);
    }
    AskDue(now);
    if (HasControl()) {
        ServeControl();
        KeepControl(now);
    }
}

// ---- questions ----

// Reads the address from then on, unless it is already read.
void Board::Watch(uint32_t address, int64_t due) {
    if (m_addresses.count(address) == 0 && m_addresses.size() < MAX_ADDRESSES) {
        Reschedule(address, m_addresses[address], due);
    }
}

void Board::Reschedule(uint32_t address, Address& entry, int64_t due) {
    m_schedule.erase({entry.due, address});
    entry.due = due;
    m_schedule.emplace(due, address);
}

// After a write, single pins are read; all others in turn, by address.
void Board::AskDue(int64_t now) {
    std::vector<uint32_t> ask;
    TakeChanges(m_states->Tend(Now(), ask));
    if (!m_link_problem.empty()) {
        return;
    }
    if (now >= m_next_question || m_next_question > now + ASK_PACE) {
        m_next_question = now + ASK_PACE;
        for (unsigned i = 0;
             i < ASK_AT_ONCE && m_schedule.begin() != m_schedule.end() &&
             (m_schedule.begin()->first <= now || m_schedule.begin()->first > now + 2 * ASK_AGAIN);
             ++i) {
            const uint32_t address = m_schedule.begin()->second;
            Address& entry = m_addresses[address];
            if (entry.asked != 0) {
                Miss(address, entry, now);
            }
            entry.asked = now;
            Reschedule(address, entry, now + (entry.misses < MAX_MISSES ? ASK_SOON : ASK_AGAIN));
            const std::vector<uint32_t> tags = PinRef{address, std::nullopt}.Tags();
            ask.insert(ask.end(), tags.begin(), tags.end());
        }
    }
    if (!ask.empty()) {
        try {
            AskForPins(*m_link, ask, m_request_id);
            ++m_counts.questions;
        } catch (const BusError& error) {
            LoseLink(now, error.what());
        }
    }
}

void Board::Answered(uint32_t address, const std::string& owner, int64_t now) {
    const auto found = m_addresses.find(address);
    if (found == m_addresses.end()) {
        return;
    }
    Address& entry = found->second;
    entry.owner = owner;
    if (entry.misses >= MAX_MISSES) {
        entry.misses = 0;
        SetLost(address, false);
    }
    entry.misses = 0;
    if (entry.asked != 0) {
        entry.asked = 0;
        Reschedule(address, entry, now + ASK_AGAIN);
    }
}

// A read was not answered. A device is missing if none of its addresses is answered.
void Board::Miss(uint32_t address, Address& entry, int64_t now) {
    ++entry.misses;
    if (entry.misses != MAX_MISSES) {
        return;
    }
    SetLost(address, true);
    const auto device = m_devices.find(entry.owner);
    const bool missing = std::all_of(m_addresses.begin(), m_addresses.end(), [&](const auto& one) {
        return one.second.owner != entry.owner || one.second.misses >= MAX_MISSES;
    });
    if (missing && device != m_devices.end() && !device->second.missing) {
        device->second.missing = true;
        TellDevice(entry.owner, EventKind::DeviceMissing, now);
    }
}

// ---- the bus ----

void Board::KeepLink(int64_t now) {
    try {
        if (!m_link) {
            BusSettings settings;
            settings.iface = m_settings.iface;
            settings.group = m_settings.group;
            settings.ignored = [this] { ++m_counts.malformed; };
            m_link = std::make_unique<BusLink>(settings);
            m_link->Listen(BusLink::Hear::ReportsAndRequests);
            FindLink(now);
        } else if (const auto change = m_link->Tend()) {
            change->up ? FindLink(now) : LoseLink(now, change->text);
        } else if (!m_link_problem.empty() && ++m_looks % 5 == 0) {
            m_link.reset();  // something other than the interface was wrong
        }
    } catch (const BusError& error) {
        m_link.reset();
        LoseLink(now, error.what());
    }
}

void Board::FindLink(int64_t now) {
    m_link_problem.clear();
    if (m_link_lost) {
        m_link_lost = false;
        Note(EventKind::GapEnd, now, LINK_LOST);
    }
    for (auto& [address, entry] : m_addresses) {
        entry.asked = 0;
        Reschedule(address, entry, now);
    }
    TellStatus();
}

// All levels are unknown now. Viewers conclude that from the state of the board.
void Board::LoseLink(int64_t now, const std::string& why) {
    const bool news = m_link_problem != why;
    m_link_problem = why;
    if (!m_link_lost) {
        m_link_lost = true;
        Note(EventKind::GapBegin, now, LINK_LOST);
        m_states = std::make_unique<PinStates>();
        m_notes.clear();
        m_texts.clear();
        WantNamed();
        m_stream.Append("reload", "{\"reason\":\"the bus is gone\"}");
    }
    if (news) {
        TellStatus();
    }
}

bool Board::Send(const CMessage& message) {
    try {
        if (m_link && m_link_problem.empty()) {
            m_link->Send(message, BUS_PORT, false);
            return true;
        }
    } catch (const BusError& error) {
        LoseLink(NowMs(), error.what());
    }
    return false;
}

// ---- the control server ----

std::string Board::ControlAddress() const {
    return m_settings.control ? HostText(static_cast<uint32_t>(m_settings.control->GetHost())) +
                                    ":" + std::to_string(m_settings.control->GetPort())
                              : "";
}

std::string Board::ControlProblem() const {
    if (!HasControl() || m_control.IsConnected()) {
        return "";
    }
    return m_control.Problem().empty() ? "not connected yet" : m_control.Problem();
}

void Board::KeepControl(int64_t now) {
    if (!m_control.IsOpen() && (now >= m_next_connect || m_next_connect > now + CONNECT_PACE)) {
        m_next_connect = now + CONNECT_PACE;
        if (m_control_asked) {
            m_control_asked = false;
            m_table = ChannelTable();
            for (auto& [tag, notes] : m_notes) {
                notes.by_control = false;  // from now on the answers of devices count
            }
            TellStatus();
        }
        m_control.Connect(*m_settings.control, CONNECT_LIMIT);
    }
    if (m_control.IsConnected() && !m_control_asked) {
        m_control_asked = true;
        m_control.Send("SET");
        m_control.Send("CFG GPO");
        TellStatus();
    }
}

void Board::ServeControl() {
    m_control.Serve();
    std::string line;
    while (m_control.Next(line)) {
        TakeLine(line, NowMs());
    }
}

void Board::TakeLine(const std::string& line, int64_t now) {
    const ChannelTable::Subject subject = m_table.Take(line);
    if (subject.number < 1 || subject.number > CHANNEL_COUNT) {
        return;
    }
    const bool configured = subject.kind == ChannelTable::Kind::Configuration;
    if (configured && m_table.Channel(subject.number).config.proto == KIND_BUS) {
        m_control.Send("ADD GPI " + std::to_string(subject.number));
        Watch(m_table.Channel(subject.number).config.ach, now);
    } else if (!configured && subject.kind != ChannelTable::Kind::Other) {
        TakeChannelState(subject.number, subject.kind == ChannelTable::Kind::Output);
    }
    m_stream.Append("channel", Dump(ChannelJson(subject.number, m_table.Channel(subject.number))));
}

// The control server's states are the most reliable, and come first.
void Board::TakeChannelState(int number, bool output) {
    const ChannelInfo& channel = m_table.Channel(number);
    const std::string& state = output ? channel.output : channel.input;
    if (channel.config.proto != KIND_BUS || channel.config.ach >= 0xFFFFFF) {
        return;
    }
    Traffic traffic;
    traffic.time = TimeOfDay();
    traffic.message.SetId(ID_REPORT);
    traffic.message.SetRoutingInfo1(m_settings.control->GetHost(), 0, 0, 0);
    const uint32_t first = output ? FIRST_OUTPUT_CIRCUIT : FIRST_INPUT_CIRCUIT;
    for (uint32_t i = 0; i < state.size() && i < PIN_COUNT; ++i) {
        const char level = state[i];
        if (level == 'L' || level == 'l' || level == 'H' || level == 'h') {
            const uint32_t tag = channel.config.ach << 8 | (first - i);
            m_notes[tag].by_control = true;
            m_notes[tag].lost = false;
            traffic.message.SetByte(tag, level == 'L' || level == 'l' ? 1 : 0);
        }
    }
    TakeChanges(m_states->Take(traffic, Now()));
}
