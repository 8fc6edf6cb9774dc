#include "tools/board/Board.h"

#include <algorithm>
#include <cmath>

#include "tools/bus/PinName.h"
#include "tools/bus/Question.h"

namespace {

const int READ_AT_ONCE = 64;        // messages, before viewers are served
const uint32_t SPECIAL = 0xFFFFFF;  // the address of tags that are not pins
const unsigned MAX_MISSES = 3;
const unsigned MAX_REFUSALS = 20;  // per minute

}  // namespace

int64_t NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

Board::Board(BoardSettings settings, History& history, EventStream& stream)
    : m_settings(std::move(settings)),
      m_history(history),
      m_stream(stream),
      m_request_id(NewRequestId()) {
    WantNamed();
}

// Pins and addresses with a name are shown and read even if nothing was heard of them.
void Board::WantNamed() {
    for (const Names::Entry& entry : m_settings.names.All()) {
        for (const uint32_t tag : entry.pins.Tags()) {
            m_states->Want(tag);
        }
        Watch(entry.pins.address, NowMs());
    }
}

int Board::BusSocket(size_t number) const {
    if (!m_link) {
        return -1;
    }
    const std::vector<int> sockets = m_link->Descriptors();
    return number < sockets.size() ? sockets[number] : -1;
}

// ---- what is heard ----

void Board::ReadBus() {
    Traffic traffic;
    try {
        for (int i = 0; i < READ_AT_ONCE && m_link && m_link->Take(traffic); ++i) {
            Take(traffic);
        }
    } catch (const BusError& error) {
        LoseLink(NowMs(), error.what());
        m_link.reset();
    }
}

void Board::Take(Traffic& traffic) {
    const Kind kind = traffic.GetKind();
    m_counts.last_heard = NowMs();
    const bool room = m_counts.messages.size() < 2 * MAX_DEVICES;
    const std::pair<std::string, std::string> key(KindName(kind), room ? traffic.host : "others");
    ++m_counts.messages[key];
    if (m_repeats.IsRepeat(traffic, Now())) {
        ++m_counts.repeats;
        return;
    }
    const bool from_device = traffic.port == REPORT_PORT;
    if (from_device && (kind == Kind::Report || kind == Kind::Reply)) {
        TakeStates(traffic, kind == Kind::Reply);
    } else if (!from_device && kind == Kind::Write) {
        TakeChanges(m_states->Take(traffic, Now()));
    }
}

// The daemon does not follow all outputs that the control server reports: for those the server
// alone counts.
void Board::TakeStates(Traffic& traffic, bool reply) {
    const int64_t now = NowMs();
    const bool known = HearDevice(traffic.host, now);
    std::vector<uint32_t> addresses;
    for (unsigned i = traffic.message.GetItemCount(); i-- > 0;) {
        const uint32_t tag = traffic.message.GetItem(i)->m_nTag;
        if (tag >> 8 != SPECIAL && (addresses.empty() || addresses.back() != tag >> 8)) {
            addresses.push_back(tag >> 8);
        }
        if (NotesOf(tag).by_control) {
            traffic.message.Remove(tag);
        }
    }
    TakeChanges(m_states->Take(traffic, Now()));
    for (unsigned i = 0; i < traffic.message.GetItemCount(); ++i) {
        const auto notes = m_notes.find(traffic.message.GetItem(i)->m_nTag);
        if (notes != m_notes.end() && notes->second.lost) {
            SetPinLost(notes->first, false);
        }
    }
    for (const uint32_t address : addresses) {
        Watch(address, now);
        if (reply) {
            Answered(address, known ? traffic.host : "", now);
        }
    }
}

void Board::TakeChanges(const std::vector<PinChange>& changes) {
    for (const PinChange& change : changes) {
        TakeChange(change);
    }
}

void Board::TakeChange(const PinChange& change) {
    const bool written = change.cause == PinChange::Cause::Written;
    PinNotes& notes = m_notes[change.tag];
    if (written) {
        notes.written = change.after;
        Watch(change.tag >> 8, NowMs());
    } else if (change.IsNewLevel()) {
        ++notes.changes;
        ++m_counts.changes;
    }
    const bool told = change.status == PinStatus::Told;
    if (written || told || change.cause == PinChange::Cause::Forgotten) {
        Event event;
        event.time = static_cast<int64_t>(std::llround(change.time * 1000));
        event.kind = written ? EventKind::Written : EventKind::Told;
        event.tag = change.tag;
        if (change.after) {
            event.low = *change.after == Level::Low;
        }
        event.duration = change.duration_ms;
        event.host = notes.by_control && !written ? ControlAddress()
                     : change.host != 0           ? HostText(change.host)
                                                  : "";
        event.text = change.after ? "" : "no answer after the duration of a write";
        m_history.Add(std::move(event));
    }
    TellPin(change.tag);
}

// False: there are too many devices.
bool Board::HearDevice(const std::string& host, int64_t now) {
    if (m_devices.count(host) == 0 && m_devices.size() >= MAX_DEVICES) {
        ++m_counts.overflow;
        return false;
    }
    Device& device = m_devices[host];
    const bool first = device.first == 0;
    const bool back = device.missing;
    device.first = first ? now : device.first;
    device.heard = now;
    device.missing = false;
    ++device.messages;
    if (first || back) {
        TellDevice(host, first ? EventKind::DeviceFirst : EventKind::DeviceBack, now);
    }
    return true;
}

// The address is no longer answered, or is answered again.
void Board::SetLost(uint32_t address, bool lost) {
    for (const uint32_t tag : PinRef{address, std::nullopt}.Tags()) {
        SetPinLost(tag, lost);
    }
}

void Board::SetPinLost(uint32_t tag, bool lost) {
    const PinState* const state = m_states->Find(tag);
    PinNotes& notes = m_notes[tag];
    if (notes.lost == lost || notes.by_control) {
        return;
    }
    notes.lost = lost;
    if (state == nullptr || !state->level || state->status != PinStatus::Told) {
        return;
    }
    Event event;
    event.time = NowMs();
    event.tag = tag;
    if (lost) {
        event.text = "nobody answers for " + AddressText(tag >> 8);
    } else {
        event.low = *state->level == Level::Low;
        event.host = TellerOf(tag, *state);
    }
    m_history.Add(std::move(event));
    TellPin(tag);
}

// ---- what viewers are told ----

PinNotes Board::NotesOf(uint32_t tag) const {
    const auto notes = m_notes.find(tag);
    return notes == m_notes.end() ? PinNotes() : notes->second;
}

std::string Board::TellerOf(uint32_t tag, const PinState& state) const {
    return NotesOf(tag).by_control ? ControlAddress()
           : state.told            ? HostText(state.told->host)
                                   : "";
}

// Cached, because every page that is opened gets thousands of pins at once.
const std::string& Board::TextOf(uint32_t tag, const PinState& state) const {
    std::string& text = m_texts[tag];
    if (text.empty()) {
        text = Dump(PinJson(tag, state, NotesOf(tag), TellerOf(tag, state), GetNames()));
    }
    return text;
}

void Board::TellPin(uint32_t tag) {
    const PinState* const state = m_states->Find(tag);
    if (state != nullptr) {
        m_texts.erase(tag);
        m_stream.Append("pin", TextOf(tag, *state));
    }
}

void Board::TellDevice(const std::string& host, EventKind kind, int64_t now) {
    Event event;
    event.time = now;
    event.kind = kind;
    event.host = host;
    m_history.Add(std::move(event));
    m_stream.Append("device", Dump(DeviceJson(host, m_devices[host], AddressesOf(host))));
}

void Board::Note(EventKind kind, int64_t now, const std::string& text) {
    Event event;
    event.time = now;
    event.kind = kind;
    event.text = text;
    m_history.Add(std::move(event));
}

OrderedJson Board::StatusJson() const {
    OrderedJson json;
    json["version"] = ORVEX_VERSION;
    json["link"] = {{"up", m_link_problem.empty()}, {"problem", m_link_problem}};
    json["history"] = {{"kept", m_history.IsInMemory() ? "memory" : "file"},
                       {"problem", m_history.Problem()},
                       {"notice", m_history.Notice()}};
    json["control"] =
        HasControl() ? OrderedJson({{"address", ControlAddress()}, {"problem", ControlProblem()}})
                     : OrderedJson();
    return json;
}

void Board::TellStatus() {
    m_stream.Append("board", Dump(StatusJson()));
}

std::vector<std::string> Board::AddressesOf(const std::string& device) const {
    std::vector<std::string> addresses;
    for (const auto& [address, entry] : m_addresses) {
        if (entry.owner == device) {
            addresses.push_back(AddressText(address));
        }
    }
    return addresses;
}

void Board::NoteRefusal(const std::string& who, const std::string& reason) {
    ++m_counts.refusals;
    Event event;
    event.time = NowMs();
    if (m_refusal_minute != event.time / 60000) {
        m_refusal_minute = event.time / 60000;
        m_refusals_noted = 0;
    }
    if (reason.empty() || ++m_refusals_noted > MAX_REFUSALS) {
        return;
    }
    event.kind = EventKind::SetAsked;
    event.host = who;
    event.text = "refused: " + reason;
    m_history.Add(std::move(event));
}

bool Board::Set(uint32_t tag, WriteValue value, const std::string& who) {
    CMessage message(16, 16);
    message.SetId(ID_WRITE);
    message.SetByte(tag, value.Byte());
    const bool sent = Send(message);
    Event event;
    event.time = NowMs();
    event.kind = EventKind::SetAsked;
    event.tag = tag;
    event.low = value.GetLevel() == Level::Low;
    event.duration = value.Duration();
    event.host = who;
    event.text = sent ? "" : "could not be sent";
    m_history.Add(std::move(event));
    ++m_counts.sets;
    return sent;
}

std::vector<std::string> Board::Complaints() const {
    std::vector<std::string> complaints;
    if (!m_link_problem.empty()) {
        complaints.push_back(m_link_problem);
    }
    for (const auto& [host, device] : m_devices) {
        if (device.missing) {
            complaints.push_back("device " + host + " does not answer");
        }
    }
    std::set<uint32_t> silent;
    for (const Names::Entry& entry : m_settings.names.All()) {
        const auto found = m_addresses.find(entry.pins.address);
        if (found != m_addresses.end() && found->second.owner.empty() &&
            found->second.misses >= MAX_MISSES && silent.insert(entry.pins.address).second) {
            complaints.push_back("nobody answers for " + AddressText(entry.pins.address));
        }
    }
    if (!ControlProblem().empty()) {
        complaints.push_back("control server " + ControlAddress() + ": " + ControlProblem());
    }
    return complaints;
}
