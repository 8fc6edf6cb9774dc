// How a bridge shows at the broker that it is there, and learns of another one for its site.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "tools/base/Time.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Standby.h"
#include "tools/mqtt/Topics.h"

// Publishes the status of the site, a heartbeat twice a second, and a number that claims the site
// for this bridge: the latest bridge of a site wins. Publishes status and claim again if the broker
// says otherwise: it may have restored old messages, or published the will of a connection that it
// had not seen end.
//
// The heartbeats come back to this bridge. Messages keep their order, so what arrives after a
// heartbeat is not older than that heartbeat: this bounds the age of a set, whatever other clocks
// say. The first one proves that what the broker had retained has arrived.
//
// If bridges stand by for each other, only the active one does all that; the heartbeats of others
// have a topic of their own.
class Presence {
public:
    Presence(const MqttConfig& config, const Topics& topics, Broker& broker);

    // The topics to subscribe to.
    void Subscribe();

    // A connection begins, with the status offline; it has ended.
    void Begin();
    void End();

    // Publishes what is due, at NextTime(); while there is a connection. One whose heartbeats do
    // not come back is dropped. fit: this bridge can carry out links.
    void Tend(bool fit);
    TimePoint NextTime() const { return m_next_sign; }

    void PublishStatus(const char* status);

    // Processes a message, of whatever topic.
    void Take(const Broker::Message& message);

    // When the last heartbeat that has come back was sent; TimePoint() if none has.
    TimePoint OwnSign() const { return m_own_sign; }
    bool IsProved() const { return m_own_sign != TimePoint(); }

    // Whether another bridge has claimed the site, and is alive, and this one does not stand by.
    bool IsTakenOver() const { return m_is_taken_over; }

    // Whether this bridge is the one of its site, and whether it may drive outputs and publish.
    bool IsActive() const { return !m_stands_by || m_standby.IsActive(); }
    bool MayDrive() const { return !m_stands_by || m_standby.MayDrive(); }

    // Leaves the site to a bridge that stands by.
    void Leave();

    const Standby& GetStandby() const { return m_standby; }

    // Identifies this run of the bridge.
    uint32_t Number() const { return m_number; }

private:
    void SendSign();
    void TendStatus();
    void TendStandby();
    void TakeSign(const std::string& payload);
    void TakeWaitingSign(const std::string& payload);
    void TakeStatus(const std::string& payload);
    void TakeOwnSign(unsigned long count);
    void Claim();
    void TakeClaim(const Broker::Message& message);

    const Topics& m_topics;
    Broker& m_broker;
    const uint32_t m_number;
    const bool m_stands_by;
    Standby m_standby;
    bool m_is_fit = true;

    bool m_was_connected = false;
    bool m_has_claimed = false;  // the site, on this connection
    std::string m_rival;         // who else has claimed it; empty: nobody
    bool m_is_taken_over = false;
    std::string m_status;       // as last published
    std::string m_seen_status;  // as last received
    TimePoint m_status_time{};
    TimePoint m_next_defence{};

    unsigned long m_sign_count = 0;
    std::deque<std::pair<unsigned long, TimePoint>> m_signs;  // those that have not come back
    TimePoint m_next_sign = TimePoint::max();
    TimePoint m_own_sign{};
    TimePoint m_connected_at{};
};
