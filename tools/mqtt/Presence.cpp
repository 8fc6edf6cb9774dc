#include "tools/mqtt/Presence.h"

#include <algorithm>
#include <utility>

#include "tools/bus/Question.h"

namespace {

// In seconds:
const double SIGN_EVERY = 0.5;
const double SIGN_TIME = 10;  // a connection without a returned heartbeat for that long is given up
const double DEFEND_EVERY = 3;  // enough to hear from a bridge that has claimed the site
const double ECHO_TIME = 0.5;   // for what was published to come back

const char* const UNFIT = " unfit";  // after a heartbeat

}  // namespace

Presence::Presence(const MqttConfig& config, const Topics& topics, Broker& broker)
    : m_topics(topics),
      m_broker(broker),
      m_number(NewRequestId()),
      m_stands_by(config.standby),
      m_standby(m_number) {}

void Presence::Subscribe() {
    m_broker.Subscribe(m_topics.Bridge());
    m_broker.Subscribe(m_topics.Alive());
    m_broker.Subscribe(m_topics.Status());
    if (m_stands_by) {
        m_broker.Subscribe(m_topics.Standby());
    }
}

void Presence::Begin() {
    m_connected_at = Now();
    m_next_sign = Now();
    m_has_claimed = false;
    if (m_stands_by) {
        return m_standby.Begin();
    }
    PublishStatus(OFFLINE);
    m_seen_status = m_status;
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

void Presence::Tend(bool fit) {
    m_is_fit = fit;
    if (Now() >= m_next_sign) {
        SendSign();
    }
    if (m_stands_by) {
        TendStandby();
    }
    if (IsProved() && MayDrive() && Now() >= m_next_defence) {
        TendStatus();
    }
}

void Presence::TendStandby() {
    m_standby.Tend();
    if (m_standby.IsActive() && !m_is_fit) {
        Leave();
    } else if (m_is_fit && m_standby.MayClaim(!m_rival.empty())) {
        m_standby.Claimed();
        Claim();
    }
}

// What arrives late must not take the site from the next one.
void Presence::Leave() {
    if (m_standby.MayDrive()) {
        PublishStatus(OFFLINE);
        m_broker.Publish({m_topics.Bridge(), {}, true, true, {}});
    }
    m_standby.Leave();
}

void Presence::TendStatus() {
    m_next_defence = After(DEFEND_EVERY);
    if (m_seen_status != m_status) {
        PublishStatus(m_status.c_str());
    }
    if (!m_has_claimed) {
        Claim();
    }
}

void Presence::SendSign() {
    m_next_sign = std::min(After(SIGN_EVERY), m_standby.NextSign());
    if (std::max(m_own_sign, m_connected_at) < After(-SIGN_TIME)) {
        return m_broker.Drop("it is connected, but heartbeats do not come back");
    }
    ++m_sign_count;
    m_signs.emplace_back(m_sign_count, Now());
    const std::string text = SignText({m_number, m_sign_count});
    if (MayDrive()) {
        m_broker.Publish({m_topics.Alive(), text, false, true, {}});
    } else {
        m_broker.Publish({m_topics.Standby(), text + (m_is_fit ? "" : UNFIT), false, true, {}});
    }
}

void Presence::PublishStatus(const char* status) {
    m_status = status;
    m_status_time = Now();
    m_next_defence = After(DEFEND_EVERY);
    m_broker.Publish({m_topics.Status(), status, true, true, {}});
}

void Presence::Claim() {
    m_broker.Publish({m_topics.Bridge(), std::to_string(m_number), true, true, {}});
}

void Presence::Take(const Broker::Message& message) {
    if (message.topic == m_topics.Bridge()) {
        TakeClaim(message);
    } else if (message.topic == m_topics.Alive() && !message.retained) {
        TakeSign(message.payload);
    } else if (message.topic == m_topics.Standby() && !message.retained) {
        TakeWaitingSign(message.payload);
    } else if (message.topic == m_topics.Status()) {
        TakeStatus(message.payload);
    }
}

// A bridge that stood by and was killed has left its will.
void Presence::TakeStatus(const std::string& payload) {
    m_seen_status = payload;
    if (m_stands_by && payload != m_status && Now() >= Later(m_status_time, ECHO_TIME)) {
        m_next_defence = Now();
    }
}

// A claim alone proves nothing: a broker may remember an old one. Whoever made it must be alive.
void Presence::TakeClaim(const Broker::Message& message) {
    m_has_claimed = message.payload == std::to_string(m_number);
    m_rival = m_has_claimed ? std::string() : message.payload;
    if (m_stands_by && m_has_claimed) {
        if (m_standby.TakeOwnClaim()) {
            PublishStatus(OFFLINE);
            m_next_sign = Now();
        }
    } else if (m_stands_by && m_rival.empty() && !message.retained) {
        m_standby.TakeLeave();
    }
}

void Presence::TakeSign(const std::string& payload) {
    const std::optional<Sign> sign = ParseSign(payload);
    if (!sign) {
        return;
    }
    const bool is_rival = std::to_string(sign->bridge) == m_rival;
    if (sign->bridge == m_number) {
        TakeOwnSign(sign->count);
    } else if (m_stands_by) {
        m_standby.TakeSign(is_rival);
    } else if (is_rival) {
        m_is_taken_over = true;
    }
}

void Presence::TakeWaitingSign(const std::string& payload) {
    const size_t end = payload.find(UNFIT);
    const std::optional<Sign> sign = ParseSign(payload.substr(0, end));
    if (sign && sign->bridge == m_number) {
        TakeOwnSign(sign->count);
    } else if (sign) {
        m_standby.TakeWaitingSign(end == payload.npos);
    }
}

void Presence::TakeOwnSign(unsigned long count) {
    const auto sign = std::find_if(m_signs.begin(), m_signs.end(),
                                   [count](const auto& sent) { return sent.first == count; });
    if (sign == m_signs.end()) {
        return;
    }
    m_own_sign = sign->second;
    m_standby.TakeOwnSign(m_own_sign);
    m_signs.erase(m_signs.begin(), sign + 1);
    m_broker.Proved();
}
