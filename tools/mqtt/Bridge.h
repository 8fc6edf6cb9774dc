// A bus and a broker, joined.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "tools/base/Signals.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Sets.h"
#include "tools/mqtt/Topics.h"

// After each outage of broker or bus all pins are asked first, then what they are is published, and
// then the site is online. In between nothing is published of pins, and sets are refused.
//
// A sign of life is published twice a second, and heard by this bridge as well. Messages keep their
// order on the way, so what comes behind a sign is not older than that sign: that tells how old a
// set can be at most, whatever the clocks of others say.
class Bridge {
public:
    enum class End { Stopped, TakenOver };

    // Throws BusError.
    Bridge(const MqttConfig& config, std::function<void(const std::string&)> tell);

    // Until a signal comes, or another bridge takes the site over.
    End Run(const Signals& signals);

private:
    enum class Phase { Away, Asking, Publishing, Online };

    void Wait(const Signals& signals, bool& stopped);
    void Step();
    void FollowConnection();
    void Announce();
    void BeginAsking();
    void TakeMessages();
    void TakeOwnSign(const std::string& payload);
    void SendSign();
    void TakeClaim(const std::string& payload);
    void FollowPhase();
    void CarryOutLinks();
    void Write(const Links::Write& write);
    bool IsPublishing() const { return m_phase == Phase::Publishing || m_phase == Phase::Online; }
    void PublishAll();
    bool PublishUrgent();
    bool PublishRest();
    void PublishPin(uint32_t tag);
    void PublishLevel(uint32_t tag);
    void PublishChange(const PinChange& change);
    void PublishDevice(uint32_t host);
    void PublishAnswer();
    void Publish(const std::string& topic, const std::string& payload, bool retain);
    void PublishStatus(const char* status);
    void Stop();
    std::string Hindrance() const;

    const MqttConfig& m_config;
    const Topics m_topics;
    const std::function<void(const std::string&)> m_tell;
    PinBook m_pins;
    Broker m_broker;
    Sets m_sets;
    Links m_links;

    Phase m_phase = Phase::Away;
    unsigned int m_connection = 0;
    bool m_bus_up = true;
    std::string m_note;      // the last one of the bus
    uint64_t m_dropped = 0;  // events, as far as told
    TimePoint m_next_complaint{};
    bool m_has_more = false;
    std::set<uint32_t> m_unannounced;                  // pins that hubs are to be told of
    std::set<uint32_t> m_levels;                       // pins whose topic of the level is due
    TimePoint m_rest = TimePoint::max();               // when what is no state is due; max: at once
    std::map<int, Broker::Outgoing> m_unacknowledged;  // answers, by number

    const std::string m_nonce;  // this bridge, among all that have been
    bool m_was_connected = false;
    bool m_has_claimed = false;  // the site, on this connection
    bool m_is_taken_over = false;
    unsigned long m_sign_count = 0;
    std::deque<std::pair<unsigned long, TimePoint>> m_signs;  // that have not come back
    TimePoint m_next_sign{};
    TimePoint m_own_sign{};  // when the last one that came back was sent
    TimePoint m_connected_at{};
};
