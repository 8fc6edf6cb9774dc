#include "tools/bus/PinFollower.h"

#include <algorithm>

namespace {

const double OPEN_EVERY = 1;  // seconds
const int SILENT_ROUNDS = 3;  // of reads: then a device without an address is silent

}  // namespace

PinFollower::PinFollower(const BusSettings& settings, const FollowPolicy& policy)
    : m_settings(settings),
      m_policy(policy),
      m_down("not opened yet"),
      m_round_id(NewRequestId()),
      m_pin_id(NewRequestId()),
      m_plan(policy) {
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
    } else if (IsUp()) {
        due = std::min(due, m_plan.NextTime());
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
        m_plan.DropReads();
        m_plan.ReadAllAt(now);
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
        m_plan.ReadAllAt(Now());
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
    const std::vector<uint32_t> addresses = AddressesIn(message);
    const uint32_t told = addresses.empty() ? 0 : addresses.front();
    if (const auto news = m_devices.Hear(host, told, m_traffic.time, now)) {
        PassNews(host, *news);
    }
    m_answerers.Take(message, now);
    if (m_is_reading) {
        m_question->Take(message);
    }
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
        if (is_answer && m_plan.Has(address)) {
            m_devices.Answer(address, host, m_plan.Answer(address, now));
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
    if (m_policy.reads != FollowPolicy::Reads::Wanted && !m_plan.Has(address) &&
        !m_states.TagsOf(address).empty()) {
        m_plan.Add(address, now);
    }
}

void PinFollower::Want(const PinRef& pins) {
    for (const uint32_t tag : pins.Tags()) {
        m_states.Want(tag);
    }
    m_wanted.insert(pins.address);
    m_plan.Add(pins.address, Now());
}

void PinFollower::Pass(const std::vector<PinChange>& changes) {
    for (const PinChange& change : changes) {
        if (on_change) {
            on_change(change);
        }
    }
}

void PinFollower::PassNews(uint32_t host, News news) {
    if (on_device) {
        on_device(host, news);
    }
}

void PinFollower::FindSilent(TimePoint now) {
    if (m_policy.every <= 0 || now < m_round || !IsUp()) {
        return;
    }
    m_round = Later(now, m_policy.every);
    const TimePoint silent = Later(now, -SILENT_ROUNDS * m_policy.every);
    for (const uint32_t host : m_devices.FindSilent(silent)) {
        PassNews(host, News::Silent);
    }
    const auto is_wanted = [this](uint32_t address) { return m_wanted.count(address) > 0; };
    const TimePoint limit = Later(now, -m_policy.forgets_after);
    for (const uint32_t host : m_devices.Forget(limit, silent, is_wanted)) {
        PassNews(host, News::Forgotten);
    }
}

// ---- reads ----

void PinFollower::ReadDue(TimePoint now) {
    if (!IsUp() || m_is_reading) {
        return;
    }
    std::vector<uint32_t> ask;
    for (const uint32_t address : m_plan.Due(now)) {
        if (ask.size() < ReadPlan::MOST_PINS) {
            ReadAddress(address, now, ask);
        }
    }
    Send(ask, m_round_id);
}

void PinFollower::ReadAddress(uint32_t address, TimePoint now, std::vector<uint32_t>& ask) {
    const std::vector<uint32_t> tags = TagsOf(address, m_plan.IncludesInputs(address));
    if (tags.empty()) {
        m_plan.Skip(address, now);
        return;
    }
    const ReadPlan::Last last = m_plan.Begin(address, now);
    if (last == ReadPlan::Last::Missed) {
        const TimePoint limit = Later(now, -m_policy.answer_time);
        if (const auto host = m_devices.Miss(address, m_plan.IsUnanswered(address), limit)) {
            PassNews(*host, News::Silent);
        }
    }
    if (last != ReadPlan::Last::Awaited) {
        NoteRead(tags, now);
    }
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

void PinFollower::Send(const std::vector<uint32_t>& tags, uint32_t request_id) {
    if (tags.empty()) {
        return;
    }
    try {
        AskForPins(*m_link, tags, request_id);
        ++m_reads;
        m_trouble.clear();
    } catch (const BusError& error) {
        NoteTrouble(error.what());
    }
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

// An address with a pin that was not told is read again at once, others when they are due.
void PinFollower::EndQuestion(TimePoint now) {
    m_is_reading = false;
    std::set<uint32_t> addresses;
    std::vector<uint32_t> missing;
    m_states.ForEach([&](uint32_t tag, const PinState& state) {
        const bool is_heard = (state.told && state.told->at >= m_asked) ||
                              (state.written && state.written->at >= m_asked);
        if (m_question->IsAsked(tag)) {
            addresses.insert(tag >> 8);
            if (!is_heard) {
                missing.push_back(tag);
            }
        }
    });
    for (const uint32_t address : addresses) {
        m_plan.ReadAt(address, Later(now, m_policy.every));
    }
    for (const uint32_t tag : missing) {
        m_plan.ReadAt(tag >> 8, now);
        if (const auto change = m_states.Forget(tag, now)) {
            Pass({*change});
        }
    }
}
