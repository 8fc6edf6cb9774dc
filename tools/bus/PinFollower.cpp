#include "tools/bus/PinFollower.h"

#include <algorithm>

namespace {

const size_t MOST_PINS = 100;  // that are read at once
const double PAUSE = 0.1;      // seconds, between that many and the next ones
const double OPEN_EVERY = 1;   // seconds
const double JITTER = 0.1;     // of an interval, so that programs do not read in step
const int SILENT_ROUNDS = 3;
const TimePoint NOT_ASKED{};

}  // namespace

PinFollower::PinFollower(const BusSettings& settings, const FollowPolicy& policy)
    : m_settings(settings),
      m_policy(policy),
      m_down("not opened yet"),
      m_round_id(NewRequestId()),
      m_pin_id(NewRequestId()),
      m_random(std::random_device()()) {
    if (!policy.keeps_trying) {
        Open();
    }
}

// ---- the link ----

// False if it is not possible yet.
bool PinFollower::Open() {
    try {
        auto link = std::make_unique<BusLink>(m_settings);
        link->Listen(BusLink::Hear::ReportsAndRequests);
        m_link = std::move(link);
        m_down.clear();
        return true;
    } catch (const BusError& error) {
        if (!m_policy.keeps_trying) {
            throw;
        }
        m_down = error.what();
        m_open = After(OPEN_EVERY);
        return false;
    }
}

std::vector<int> PinFollower::Descriptors() const {
    return m_link ? m_link->Descriptors() : std::vector<int>();
}

TimePoint PinFollower::NextTime() const {
    if (!m_link) {
        return m_open;
    }
    TimePoint due = std::min(m_link->NextTime(), m_states.NextTime());
    if (m_is_reading) {
        due = std::min(due, m_question->NextTime());
    } else if (IsUp() && !m_schedule.empty()) {
        due = std::min(due, std::max(m_pause, m_schedule.begin()->first));
    }
    return due;
}

bool PinFollower::Serve(int most) {
    const TimePoint now = Now();
    if (!m_link) {
        if (now < m_open || !Open()) {
            return false;
        }
        if (on_link) {
            on_link({true, "the bus is heard"});
        }
    }
    int taken = 0;
    try {
        while (taken < most && m_link->Take(m_traffic)) {
            ++taken;
            TakeMessage(Now());
        }
    } catch (const BusError& error) {
        NoteTrouble(error.what());
    }
    if (taken < most) {
        NoteLost();
    }
    FollowLink(Now());
    std::vector<uint32_t> ask;
    Pass(m_states.Tend(Now(), ask));
    if (m_policy.reads_written) {
        Send(ask, m_pin_id);
    }
    TendQuestion(Now());
    ReadDue(Now());
    FindSilent(Now());
    return taken == most;
}

void PinFollower::FollowLink(TimePoint now) {
    const std::optional<BusLink::Change> change = m_link->Tend();
    if (!change) {
        return;
    }
    m_down = change->up ? "" : change->text;
    if (!change->up) {
        ForgetAll(now);
        m_is_reading = false;
    } else {
        for (auto& [address, place] : m_places) {
            place.asked = NOT_ASKED;
        }
        ReadSoon(now);
    }
    if (on_link) {
        on_link(*change);
    }
}

void PinFollower::ForgetAll(TimePoint now) {
    std::vector<uint32_t> tags;
    m_states.ForEach([&](uint32_t tag, const PinState&) {
        if (!is_told_elsewhere || !is_told_elsewhere(tag)) {
            tags.push_back(tag);
        }
    });
    for (const uint32_t tag : tags) {
        m_states.Forget(tag, now);
    }
}

// Any pin may have changed in what was lost.
void PinFollower::NoteLost() {
    const uint64_t lost = m_link->Lost();
    if (lost != m_lost) {
        const uint64_t more = lost - m_lost;
        m_lost = lost;
        ReadSoon(Now());
        if (on_trouble) {
            on_trouble("the bus is too fast: " + std::to_string(more) +
                       " datagrams were lost, all pins are read");
        }
    }
}

void PinFollower::NoteTrouble(const std::string& text) {
    const bool is_new = m_trouble != text;
    m_trouble = text;
    if (is_new && on_trouble) {
        on_trouble(text);
    }
}

// ---- what is heard ----

void PinFollower::TakeMessage(TimePoint now) {
    const Kind kind = m_traffic.GetKind();
    const bool is_repeat = m_repeats.IsRepeat(m_traffic, now);
    if (on_message) {
        on_message(m_traffic, is_repeat);
    }
    if (!IsUp() && !m_policy.takes_while_down) {
        return;
    }
    if ((kind == Kind::Report || kind == Kind::Reply) && m_traffic.port == m_settings.listen_port) {
        TakeTold(kind, now);
    } else if (kind == Kind::Write && m_traffic.port == m_settings.send_port) {
        // A copy of a write changes nothing, but would be passed on as another write.
        const std::vector<PinChange> changes = m_states.Take(m_traffic, now);
        if (!is_repeat) {
            Pass(changes);
        }
        for (const uint32_t address : AddressesIn(m_traffic.message)) {
            Follow(address, now);
        }
    }
}

void PinFollower::TakeTold(Kind kind, TimePoint now) {
    CMessage& message = m_traffic.message;
    const auto host = static_cast<uint32_t>(message.GetHost());
    NoteDevice(host, m_traffic.time, now);
    m_answerers.Take(message, now);
    if (m_is_reading) {
        m_question->Take(message);
    }
    const std::vector<uint32_t> addresses = AddressesIn(message);
    const CMsg2::Node* const refers = FindItem(message, TAG_REFERS_TO, CMsg2::ITEM_DWORD);
    const bool is_answer =
        kind == Kind::Reply && (refers->m_Value.m_nDword == m_round_id || IsAnswer(message));
    for (unsigned int i = message.GetItemCount(); i-- > 0 && is_told_elsewhere;) {
        const uint32_t tag = message.GetItem(i)->m_nTag;
        if (is_told_elsewhere(tag)) {
            message.Remove(tag);
        }
    }
    Pass(m_states.Take(m_traffic, now));
    for (const uint32_t address : addresses) {
        Follow(address, now);
        if (is_answer) {
            Answered(address, host, now);
        }
    }
}

std::vector<uint32_t> PinFollower::AddressesIn(const CMessage& message) const {
    std::vector<uint32_t> addresses;
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node& item = *message.GetItem(i);
        const uint32_t address = item.m_nTag >> 8;
        if (IsPinItem(item) && (addresses.empty() || addresses.back() != address)) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

// Reads the address from now on. There are no more addresses than stored pins.
void PinFollower::Follow(uint32_t address, TimePoint now) {
    if (m_policy.reads != FollowPolicy::Reads::Wanted && m_policy.every > 0 &&
        m_places.count(address) == 0 && !m_states.TagsOf(address).empty()) {
        Schedule(address, m_places[address], now);
    }
}

void PinFollower::Want(const PinRef& pins) {
    for (const uint32_t tag : pins.Tags()) {
        m_states.Want(tag);
    }
    if (m_policy.every > 0 && m_places.count(pins.address) == 0) {
        Schedule(pins.address, m_places[pins.address], Now());
    }
}

void PinFollower::Pass(const std::vector<PinChange>& changes) {
    for (const PinChange& change : changes) {
        if (on_change) {
            on_change(change);
        }
    }
}

// ---- devices ----

void PinFollower::NoteDevice(uint32_t host, double time, TimePoint now) {
    const bool is_new = m_devices.count(host) == 0;
    if (is_new && m_devices.size() >= MAX_DEVICES) {
        ++m_devices_passed_over;
        return;
    }
    Device& device = m_devices[host];
    device.last = time;
    device.heard = now;
    ++device.messages;
    if (is_new || device.is_silent) {
        device.first = is_new ? time : device.first;
        device.since = time;
        device.is_silent = false;
        if (on_device) {
            on_device(host, is_new ? News::First : News::Back);
        }
    }
}

// Of devices without an address no answer is missed.
void PinFollower::FindSilent(TimePoint now) {
    if (m_policy.every <= 0 || now < m_round || !IsUp()) {
        return;
    }
    m_round = Later(now, m_policy.every);
    const TimePoint limit = Later(now, -SILENT_ROUNDS * m_policy.every);
    for (auto& [host, device] : m_devices) {
        if (device.addresses == 0 && device.heard < limit) {
            Silence(host, device);
        }
    }
}

void PinFollower::Silence(uint32_t host, Device& device) {
    if (device.is_silent) {
        return;
    }
    device.is_silent = true;
    device.since = TimeOfDay();
    if (on_device) {
        on_device(host, News::Silent);
    }
}

void PinFollower::SetOwner(Place& place, uint32_t host) {
    if (place.owner == host) {
        return;
    }
    const auto before = m_devices.find(place.owner);
    if (before != m_devices.end()) {
        --before->second.addresses;
    }
    const auto after = m_devices.find(host);
    place.owner = after != m_devices.end() ? host : 0;
    if (after != m_devices.end()) {
        ++after->second.addresses;
    }
}

uint32_t PinFollower::OwnerOf(uint32_t address) const {
    const auto place = m_places.find(address);
    return place == m_places.end() ? 0 : place->second.owner;
}

std::vector<uint32_t> PinFollower::AddressesOf(uint32_t host) const {
    std::vector<uint32_t> addresses;
    for (const auto& [address, place] : m_places) {
        if (place.owner == host) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

bool PinFollower::IsUnanswered(uint32_t address) const {
    const auto place = m_places.find(address);
    return place != m_places.end() && place->second.misses >= m_policy.misses;
}

// ---- reads ----

void PinFollower::Schedule(uint32_t address, Place& place, TimePoint due) {
    m_schedule.erase({place.due, address});
    place.due = due;
    m_schedule.emplace(due, address);
}

void PinFollower::ReadSoon(TimePoint now) {
    for (auto& [address, place] : m_places) {
        Schedule(address, place, now);
    }
}

void PinFollower::ReadDue(TimePoint now) {
    if (!IsUp() || m_is_reading || now < m_pause) {
        return;
    }
    std::vector<uint32_t> ask;
    for (const uint32_t address : DueAddresses(now)) {
        if (ask.size() >= MOST_PINS) {
            break;
        }
        ReadAddress(address, m_places.at(address), now, ask);
    }
    if (Send(ask, m_round_id)) {
        m_pause = Later(now, PAUSE);
    }
}

// If one is due, also those that would wake the program soon.
std::vector<uint32_t> PinFollower::DueAddresses(TimePoint now) const {
    std::vector<uint32_t> addresses;
    const TimePoint soon = Later(now, m_policy.every / 2);
    for (const auto& [due, address] : m_schedule) {
        if (due > (addresses.empty() ? now : soon) || addresses.size() >= MOST_PINS) {
            break;
        }
        const TimePoint asked = m_places.at(address).asked;
        if (due <= now || asked == NOT_ASKED || Later(asked, m_policy.answer_time) <= now) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

void PinFollower::ReadAddress(uint32_t address, Place& place, TimePoint now,
                              std::vector<uint32_t>& ask) {
    const std::vector<uint32_t> tags = TagsOf(address, place.rounds % m_policy.input_rounds == 0);
    if (tags.empty()) {
        ++place.rounds;
        return Schedule(address, place, Later(now, m_policy.every));
    }
    if (place.asked == NOT_ASKED || Later(place.asked, m_policy.answer_time) <= now) {
        Miss(place, now);
        NoteRead(tags, now);
        place.asked = now;
    }
    const double again = std::min(m_policy.answer_time, m_policy.every);
    Schedule(address, place, Later(now, place.misses < m_policy.misses ? again : m_policy.every));
    ask.insert(ask.end(), tags.begin(), tags.end());
}

void PinFollower::NoteRead(const std::vector<uint32_t>& tags, TimePoint now) {
    for (const uint32_t tag : tags) {
        if (is_told_elsewhere && is_told_elsewhere(tag)) {
            continue;
        }
        if (const auto change = m_states.NoteRead(tag, now, m_policy.misses)) {
            Pass({*change});
        }
    }
}

std::vector<uint32_t> PinFollower::TagsOf(uint32_t address, bool with_inputs) const {
    std::set<uint32_t> tags;
    if (m_policy.reads == FollowPolicy::Reads::Addresses) {
        const std::vector<uint32_t> named = PinRef{address, std::nullopt}.Tags();
        tags.insert(named.begin(), named.end());
    }
    const std::vector<uint32_t> known = m_states.TagsOf(address);
    tags.insert(known.begin(), known.end());
    std::vector<uint32_t> wanted;
    std::copy_if(tags.begin(), tags.end(), std::back_inserter(wanted),
                 [with_inputs](uint32_t tag) { return with_inputs || !IsInput(tag); });
    return wanted;
}

void PinFollower::Answered(uint32_t address, uint32_t host, TimePoint now) {
    const auto found = m_places.find(address);
    if (found == m_places.end()) {
        return;
    }
    Place& place = found->second;
    if (IsUnanswered(address) && m_devices.count(place.owner) > 0) {
        --m_devices[place.owner].unanswered;
    }
    place.misses = 0;
    SetOwner(place, host);
    if (place.asked == NOT_ASKED) {
        return;
    }
    const double seconds = std::chrono::duration<double>(now - place.asked).count();
    place.asked = NOT_ASKED;
    ++place.rounds;
    std::uniform_real_distribution<double> part(1 - JITTER, 1);
    Schedule(address, place, Later(now, m_policy.every * part(m_random)));
    if (place.owner != 0) {
        Device& device = m_devices[place.owner];
        const bool is_first = device.answers++ == 0;
        device.answer_time += (seconds - device.answer_time) / (is_first ? 1 : 8);
        device.longest_time = std::max(device.longest_time, seconds);
    }
}

// If the last read was not answered. A device may be heard although its answers get lost.
void PinFollower::Miss(Place& place, TimePoint now) {
    if (place.asked == NOT_ASKED) {
        return;
    }
    ++place.misses;
    const auto device = m_devices.find(place.owner);
    if (device == m_devices.end()) {
        return;
    }
    ++device->second.missed;
    device->second.unanswered += place.misses == m_policy.misses ? 1 : 0;
    if (device->second.unanswered == device->second.addresses &&
        device->second.heard < Later(now, -m_policy.answer_time)) {
        Silence(device->first, device->second);
    }
}

bool PinFollower::Send(const std::vector<uint32_t>& tags, uint32_t request_id) {
    if (tags.empty()) {
        return false;
    }
    try {
        AskForPins(*m_link, tags, request_id);
        ++m_reads;
        m_trouble.clear();
    } catch (const BusError& error) {
        NoteTrouble(error.what());
    }
    return true;
}

void PinFollower::Write(uint32_t tag, const WriteValue& value) {
    if (!m_link) {
        throw BusError(m_down);
    }
    CMessage message(16, 16);
    message.SetId(ID_WRITE);
    message.SetByte(tag, value.Byte());
    m_link->Send(message, m_settings.send_port, false);
}

void PinFollower::Ask(uint32_t tag, uint32_t request_id) {
    if (!m_link) {
        throw BusError(m_down);
    }
    AskForPins(*m_link, {tag}, request_id);
}

// ---- reads at once ----

void PinFollower::Read(const std::vector<PinRef>& pins) {
    if (m_link) {
        m_asked = Now();
        m_question.emplace(*m_link, pins);
        m_is_reading = true;
    }
}

void PinFollower::ReadAll() {
    std::vector<PinRef> pins;
    m_states.ForEach([&](uint32_t tag, const PinState&) {
        if (!IsUnanswered(tag >> 8)) {
            pins.push_back({tag >> 8, static_cast<uint8_t>(tag & 0xFF)});
        }
    });
    Read(pins);
}

void PinFollower::TendQuestion(TimePoint now) {
    if (!m_is_reading) {
        return;
    }
    if (m_question->IsOver()) {
        EndQuestion(now);
        return;
    }
    try {
        m_question->AskWhenDue();
    } catch (const BusError& error) {
        NoteTrouble(error.what());
    }
}

// Whoever did not answer is read again at once, whoever did when it is due.
void PinFollower::EndQuestion(TimePoint now) {
    m_is_reading = false;
    std::map<uint32_t, bool> heard;  // by tag
    m_states.ForEach([&](uint32_t tag, const PinState& state) {
        if (m_question->IsAsked(tag)) {
            heard[tag] = (state.told && state.told->at >= m_asked) ||
                         (state.written && state.written->at >= m_asked);
        }
    });
    for (const auto& [tag, is_heard] : heard) {
        const auto place = m_places.find(tag >> 8);
        if (place != m_places.end()) {
            const TimePoint due = is_heard ? Later(now, m_policy.every) : now;
            Schedule(place->first, place->second, due);
        }
        if (const auto change = is_heard ? std::nullopt : m_states.Forget(tag, now)) {
            Pass({*change});
        }
    }
}
