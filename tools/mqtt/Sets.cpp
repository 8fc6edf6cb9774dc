#include "tools/mqtt/Sets.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace {

const size_t MOST_PENDING = 500;
const size_t MOST_ANSWERS = 10000;
const size_t MOST_UNACKNOWLEDGED = 20;
const double FIRST_QUESTION = 0.01;  // seconds after the write
const double ASK_EVERY = 0.1;
const double ANSWER_TIME = 1;

}  // namespace

Sets::Sets(const MqttConfig& config, PinFollower& pins,
           std::function<void(const std::string&)> tell)
    : m_config(config), m_topics(config), m_pins(pins), m_tell(std::move(tell)) {}

// Who may only ask for answers must not publish as a bridge, as a hub's device or as the broker.
bool Sets::IsReserved(const std::string& topic) const {
    const std::string first = topic.substr(0, topic.find('/'));
    return topic[0] == '$' || first == m_config.prefix ||
           (!m_config.discovery.empty() && first == m_config.discovery);
}

// Returns the tag of the pin. Throws std::invalid_argument with the reason to refuse.
uint32_t Sets::Check(const Broker::Message& message, const std::string& pin, double age,
                     const std::string& hindrance) const {
    if (message.retained) {
        throw std::invalid_argument("it is retained, and may be old");
    }
    if (IsReserved(message.response_topic)) {
        throw std::invalid_argument("no answer may go to its response topic");
    }
    if (!hindrance.empty()) {
        throw std::invalid_argument(hindrance);
    }
    const double limit = message.expiry ? *message.expiry : m_config.expire;
    if (age > limit) {
        throw std::invalid_argument("it may have come late: it has expired");
    }
    const uint32_t tag = m_config.names.ParsePin(pin);
    if (IsInput(tag)) {
        throw std::invalid_argument("an input: devices do not set it");
    }
    if (m_pending.size() >= MOST_PENDING) {
        throw std::invalid_argument("too many sets at once");
    }
    return tag;
}

void Sets::Take(const Broker::Message& message, double age, const std::string& hindrance) {
    const std::string pin = m_topics.PinOfSet(message.topic);
    if (m_answers.size() >= MOST_ANSWERS) {
        return m_tell("the broker accepts no answers: sets are ignored");
    }
    // This is how a retained set is removed.
    if (message.retained && message.payload.empty()) {
        return;
    }
    try {
        const uint32_t tag = Check(message, pin, age, hindrance);
        const SetRequest request = ParseSet(message.payload);
        m_pins.Write(tag, WriteValue(request.level, request.duration_ms));
        m_pending.push_back({message, pin, tag, request.level, NewRequestId(),
                             After(FIRST_QUESTION), After(ANSWER_TIME), std::nullopt});
    } catch (const std::exception& error) {
        m_tell("refused to set " + pin + ": " + error.what());
        Answer(message, "refused", pin, error.what());
    }
}

// Only answers to a set's own read: others may be older than the set.
void Sets::TakeReply(const Traffic& traffic) {
    const CMsg2::Node* const refers = FindItem(traffic.message, TAG_REFERS_TO, CMsg2::ITEM_DWORD);
    for (auto set = m_pending.begin(); refers != nullptr && set != m_pending.end();) {
        const CMsg2::Node* const item = FindItem(traffic.message, set->tag, CMsg2::ITEM_BYTE);
        if (refers->m_Value.m_nDword == set->id && item != nullptr) {
            set->answered = PinValueOf(Kind::Reply, *item).level;
            if (set->answered == set->level) {
                Answer(set->message, "done", set->pin, {});
                set = m_pending.erase(set);
                continue;
            }
        }
        ++set;
    }
}

void Sets::Tend() {
    for (auto set = m_pending.begin(); set != m_pending.end();) {
        if (Now() >= set->end) {
            Answer(set->message, "sent", set->pin,
                   set->answered ? "the device does not show it" : "no device has answered");
            set = m_pending.erase(set);
            continue;
        }
        if (Now() >= set->ask) {
            set->ask = After(ASK_EVERY);
            try {
                m_pins.Ask(set->tag, set->id);
            } catch (const BusError&) {
                // Reads again until the time is over.
            }
        }
        ++set;
    }
}

TimePoint Sets::NextTime() const {
    TimePoint next = TimePoint::max();
    for (const Pending& set : m_pending) {
        next = std::min({next, set.ask, set.end});
    }
    return next;
}

void Sets::Answer(const Broker::Message& message, const std::string& result, const std::string& pin,
                  const std::string& reason) {
    ++m_results[result];
    if (!message.response_topic.empty() && !IsReserved(message.response_topic)) {
        m_answers.push_back({message.response_topic, AnswerText(result, pin, reason), false, true,
                             message.correlation});
    }
}

bool Sets::PublishAnswer(Broker& broker) {
    if (m_answers.empty() || m_unacknowledged.size() >= MOST_UNACKNOWLEDGED) {
        return false;
    }
    const uint32_t number = broker.Publish(m_answers.front());
    m_unacknowledged.emplace(number, std::move(m_answers.front()));
    m_answers.pop_front();
    return true;
}

void Sets::ConnectionEnded() {
    for (auto answer = m_unacknowledged.rbegin(); answer != m_unacknowledged.rend(); ++answer) {
        m_answers.push_front(std::move(answer->second));
    }
    m_unacknowledged.clear();
}
