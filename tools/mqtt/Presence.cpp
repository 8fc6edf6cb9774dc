#include "tools/mqtt/Presence.h"

#include <algorithm>
#include <utility>

#include "tools/bus/Question.h"

namespace {

// In seconds:
const double SIGN_EVERY = 0.5;
const double SIGN_TIME = 10;  // a connection without a returned heartbeat for that long is given up
const double DEFEND_EVERY = 3;  // enough to hear from a bridge that has claimed the site

}  // namespace

Presence::Presence(const Topics& topics, Broker& broker)
    : m_topics(topics), m_broker(broker), m_number(NewRequestId()) {}

void Presence::Subscribe() {
    m_broker.Subscribe(m_topics.Bridge());
    m_broker.Subscribe(m_topics.Alive());
    m_broker.Subscribe(m_topics.Status());
}

void Presence::Begin() {
    m_connected_at = Now();
    m_next_sign = Now();
    PublishStatus(OFFLINE);
    m_seen_status = m_status;
    m_has_claimed = false;
    if (!std::exchange(m_was_connected, true)) {
        Claim();
    }
}

void Presence::End() {
    m_signs.clear();
    m_next_sign = TimePoint::max();
    m_own_sign = {};
    m_rival.clear();
}

void Presence::Tend() {
    if (Now() >= m_next_sign) {
        SendSign();
    }
    if (!IsProved() || Now() < m_next_defence) {
        return;
    }
    m_next_defence = After(DEFEND_EVERY);
    if (m_seen_status != m_status) {
        PublishStatus(m_status.c_str());
    }
    if (!m_has_claimed) {
        Claim();
    }
}

void Presence::SendSign() {
    m_next_sign = After(SIGN_EVERY);
    if (std::max(m_own_sign, m_connected_at) < After(-SIGN_TIME)) {
        return m_broker.Drop("it is connected, but heartbeats do not come back");
    }
    ++m_sign_count;
    m_signs.emplace_back(m_sign_count, Now());
    m_broker.Publish({m_topics.Alive(), SignText({m_number, m_sign_count}), false, true, {}});
}

void Presence::PublishStatus(const char* status) {
    m_status = status;
    m_next_defence = After(DEFEND_EVERY);
    m_broker.Publish({m_topics.Status(), status, true, true, {}});
}

void Presence::Claim() {
    m_broker.Publish({m_topics.Bridge(), std::to_string(m_number), true, true, {}});
}

void Presence::Take(const Broker::Message& message) {
    if (message.topic == m_topics.Bridge()) {
        TakeClaim(message.payload);
    } else if (message.topic == m_topics.Alive() && !message.retained) {
        TakeSign(message.payload);
    } else if (message.topic == m_topics.Status()) {
        m_seen_status = message.payload;
    }
}

// A claim alone proves nothing: a broker may remember an old one. Whoever made it must be alive.
void Presence::TakeClaim(const std::string& payload) {
    m_has_claimed = payload == std::to_string(m_number);
    m_rival = m_has_claimed ? std::string() : payload;
}

void Presence::TakeSign(const std::string& payload) {
    const std::optional<Sign> sign = ParseSign(payload);
    if (sign && sign->bridge == m_number) {
        TakeOwnSign(sign->count);
    } else if (sign && std::to_string(sign->bridge) == m_rival) {
        m_is_taken_over = true;
    }
}

void Presence::TakeOwnSign(unsigned long count) {
    const auto sign = std::find_if(m_signs.begin(), m_signs.end(),
                                   [count](const auto& sent) { return sent.first == count; });
    if (sign == m_signs.end()) {
        return;
    }
    m_own_sign = sign->second;
    m_signs.erase(m_signs.begin(), sign + 1);
    m_broker.Proved();
}
