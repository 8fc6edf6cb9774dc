#include "tools/board/Board.h"

#include <algorithm>
#include <set>

#include "tools/base/Time.h"
#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"
#include "tools/bus/StateJson.h"

namespace {

const int READ_AT_ONCE = 64;          // messages, before viewers are served
const size_t MAX_COUNTERS = 1000;     // of messages, by kind and host
const unsigned MAX_REFUSALS = 20;     // per minute
const double LEFT_OUT_FOR = 10 * 60;  // seconds in which it is told that something was left out

const char* const LINK_LOST = "the bus could not be heard";

BusSettings BusSettingsOf(const BoardSettings& settings, uint64_t& malformed) {
    BusSettings bus;
    bus.iface = settings.iface;
    bus.group = settings.group;
    bus.ignored = [&malformed] { ++malformed; };
    return bus;
}

FollowPolicy Policy() {
    FollowPolicy policy;
    policy.reads = FollowPolicy::Reads::Addresses;
    policy.keeps_trying = true;
    policy.takes_while_down = false;
    return policy;
}

}  // namespace

int64_t NowMs() {
    return WholeMilliseconds(TimeOfDay());
}

Board::Board(BoardSettings settings, History& history, EventStream& stream)
    : m_settings(std::move(settings)),
      m_history(history),
      m_stream(stream),
      m_follower(BusSettingsOf(m_settings, m_counts.malformed), Policy()),
      m_control(m_settings.control) {
    ListenToBus();
    ListenToControl();
    WantNamed();
}

// Pins and addresses with a name are shown and read even if nothing was heard of them.
void Board::WantNamed() {
    for (const Names::Entry& entry : m_settings.names.All()) {
        m_follower.Want(entry.pins);
    }
}

void Board::Rename(Names names) {
    m_settings.names = std::move(names);
    m_texts.clear();
    WantNamed();
    m_stream.Append("reload", "{\"reason\":\"names or rights have changed\"}",
                    Audience::Everyone());
}

void Board::ListenToBus() {
    m_follower.on_message = [this](const Traffic& traffic, bool is_repeat) {
        CountMessage(traffic, is_repeat);
    };
    m_follower.on_change = [this](const PinChange& change) { TakeChange(change); };
    m_follower.on_device = [this](uint32_t host, PinFollower::News news) {
        TakeDevice(host, news);
    };
    m_follower.is_told_elsewhere = [this](uint32_t tag) { return m_control.Tells(tag); };
}

// The daemon does not follow all outputs that the control server reports: for those the server
// alone counts.
void Board::ListenToControl() {
    m_control.on_status = [this] { TellStatus(); };
    m_control.on_channel = [this](int number) {
        m_stream.Append("channel", Dump(ChannelJson(number, m_control.Channel(number))));
    };
    m_control.on_pins = [this](const PinRef& pins) { m_follower.Want(pins); };
    m_control.on_told = [this](const Traffic& traffic) { m_follower.Tell(traffic); };
    m_control.on_lost = [this](const std::vector<PinRef>& pins) { m_follower.Read(pins); };
}

// A write is heard before the control server tells what came of it.
bool Board::Serve() {
    const bool more = m_follower.Serve(READ_AT_ONCE);
    m_control.Serve();
    TakeLink();
    if (m_left_out != m_follower.PassedOver()) {
        m_left_out = m_follower.PassedOver();
        m_left_out_at = Now();
    }
    return more;
}

// ---- what is heard ----

void Board::CountMessage(const Traffic& traffic, bool is_repeat) {
    m_counts.last_heard = traffic.time;
    m_counts.repeats += is_repeat ? 1 : 0;
    const bool room = m_counts.messages.size() < MAX_COUNTERS;
    ++m_counts.messages[{KindName(traffic.GetKind()), room ? traffic.host : "others"}];
}

void Board::TakeChange(const PinChange& change) {
    const bool written = change.cause == PinChange::Cause::Written;
    const bool forgotten = change.cause == PinChange::Cause::Forgotten;
    if (!written && change.before && change.after && change.IsNewLevel()) {
        ++m_changes[change.tag];
        ++m_counts.changes;
    }
    if (written || forgotten || change.status == PinStatus::Told) {
        Event event;
        event.time = WholeMilliseconds(change.time);
        event.kind = written ? EventKind::Written : EventKind::Told;
        event.tag = change.tag;
        if (change.after) {
            event.low = *change.after == Level::Low;
        }
        event.duration = change.duration_ms;
        event.host = m_control.Tells(change.tag) && !written ? m_control.Address()
                     : change.host != 0                      ? HostText(change.host)
                                                             : "";
        event.text = change.after ? "" : "nobody answers for " + AddressText(change.tag >> 8);
        m_history.Add(std::move(event));
    }
    TellPin(change.tag);
}

void Board::TakeDevice(uint32_t host, PinFollower::News news) {
    using News = PinFollower::News;
    Note(news == News::First    ? EventKind::DeviceFirst
         : news == News::Silent ? EventKind::DeviceMissing
         : news == News::Back   ? EventKind::DeviceBack
                                : EventKind::DeviceForgotten,
         "", HostText(host));
    m_stream.Append("device", Dump(news == News::Forgotten
                                       ? Json({{"host", HostText(host)}, {"forgotten", true}})
                                       : DeviceJsonOf(host)));
}

void Board::TakeLink() {
    const bool is_down = !m_follower.IsUp();
    if (is_down != m_is_down) {
        m_is_down = is_down;
        Note(is_down ? EventKind::GapBegin : EventKind::GapEnd, LINK_LOST);
        if (is_down) {  // no level is known any more
            m_texts.clear();
            m_stream.Append("reload", "{\"reason\":\"the bus is gone\"}", Audience::Everyone());
        }
    }
    if (m_problem != LinkProblem()) {
        m_problem = LinkProblem();
        TellStatus();
    }
}

void Board::Note(EventKind kind, const std::string& text, const std::string& host) {
    Event event;
    event.time = NowMs();
    event.kind = kind;
    event.text = text;
    event.host = host;
    m_history.Add(std::move(event));
}

// ---- what viewers are told ----

uint64_t Board::ChangesOf(uint32_t tag) const {
    const auto changes = m_changes.find(tag);
    return changes == m_changes.end() ? 0 : changes->second;
}

// Cached, because every page that is opened gets thousands of pins at once.
const std::string& Board::TextOf(uint32_t tag, const PinState& state) const {
    std::string& text = m_texts[tag];
    if (text.empty()) {
        Json json = BoardJson(tag, state, GetNames());
        if (m_control.Tells(tag)) {
            json["by"] = m_control.Address();
        }
        text = Dump(json);
    }
    return text;
}

void Board::TellPin(uint32_t tag) {
    const PinState* const state = Pins().Find(tag);
    if (state != nullptr) {
        m_texts.erase(tag);
        m_stream.Append("pin", TextOf(tag, *state), Audience::OfPin(tag));
    }
}

Json Board::DeviceJsonOf(uint32_t host) const {
    return DeviceJson(HostText(host), m_follower.Devices().at(host));
}

Json Board::StatusJson() const {
    Json json;
    json["version"] = ORVEX_VERSION;
    json["link"] = {{"up", LinkProblem().empty()}, {"problem", LinkProblem()}};
    json["history"] = {{"kept", m_history.IsInMemory() ? "memory" : "file"},
                       {"problem", m_history.Problem()},
                       {"notice", m_history.Notice()}};
    json["control"] =
        m_control.IsFollowed()
            ? Json({{"address", m_control.Address()}, {"problem", m_control.Problem()}})
            : Json();
    json["left_out"] = LeftOutText();
    json["shared"] = Json::array();
    for (const auto& [address, hosts] : m_follower.Shared()) {
        json["shared"].push_back(SharedText(address, hosts, GetNames()));
    }
    return json;
}

void Board::TellStatus() {
    std::string status = Dump(StatusJson());
    if (m_status != status) {
        m_status = std::move(status);
        m_stream.Append("board", m_status, Audience::Everyone());
    }
}

std::string Board::LeftOutText() const {
    return m_left_out_at && Later(*m_left_out_at, LEFT_OUT_FOR) > Now()
               ? "some pins or devices are not shown: there are too many, or one host has too many"
               : "";
}

std::vector<std::string> Board::Complaints() const {
    std::vector<std::string> complaints = {LinkProblem(), LeftOutText()};
    for (const auto& [host, device] : m_follower.Devices()) {
        complaints.push_back(device.is_silent ? "device " + HostText(host) + " does not answer"
                                              : "");
    }
    std::set<uint32_t> silent;  // of no known device
    for (const Names::Entry& entry : m_settings.names.All()) {
        const uint32_t address = entry.pins.address;
        if (m_follower.IsUnanswered(address) && m_follower.OwnerOf(address) == 0 &&
            silent.insert(address).second) {
            complaints.push_back("nobody answers for " + AddressText(address));
        }
    }
    for (const auto& [address, hosts] : m_follower.Shared()) {
        complaints.push_back(SharedText(address, hosts, GetNames()));
    }
    complaints.push_back(m_control.Problem().empty() ? ""
                                                     : "control server " + m_control.Address() +
                                                           ": " + m_control.Problem());
    complaints.erase(std::remove(complaints.begin(), complaints.end(), ""), complaints.end());
    return complaints;
}

// ---- what viewers ask for ----

void Board::NoteRefusal(const std::string& who, const std::string& reason) {
    ++m_counts.refusals;
    if (Now() - m_refusal_minute >= std::chrono::minutes(1)) {
        m_refusal_minute = Now();
        m_refusals_noted = 0;
    }
    if (!reason.empty() && ++m_refusals_noted <= MAX_REFUSALS) {
        Note(EventKind::SetAsked, "refused: " + reason, who);
    }
}

bool Board::Set(uint32_t tag, WriteValue value, const std::string& who) {
    bool sent = m_follower.IsUp();
    try {
        if (sent) {
            m_follower.Write(tag, value);
        }
    } catch (const BusError&) {
        sent = false;
    }
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
