// Connects a bus and a broker.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

#include "tools/base/Log.h"
#include "tools/base/Notify.h"
#include "tools/base/Signals.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Sets.h"
#include "tools/mqtt/Topics.h"

// After each outage of broker or bus it reads all pins, publishes their states, and then sets the
// site online. Until then it publishes nothing about pins and refuses sets.
//
// Before it is online it also removes what an earlier bridge of this site has left at the broker
// about pins and devices that do not answer any more.
//
// A heartbeat is published twice a second, and received by this bridge too. Messages keep their
// order, so what arrives after a heartbeat is not older than that heartbeat: this bounds the age of
// a set, whatever other clocks say.
class Bridge {
public:
    enum class End { Stopped, TakenOver };

    // Throws BusError. The configuration changes when it is read again.
    Bridge(MqttConfig& config, std::function<void(const std::string&)> print);

    // Runs until a signal comes, or another bridge takes the site over. SIGHUP reads the file
    // again: names, pins and links may change.
    End Run(Signals& signals);

private:
    enum class Phase { Away, Connected, Asking, Publishing, Online };

    bool Wait(const Signals& signals);
    void Reload();
    void Follow(const MqttConfig& fresh);
    std::set<std::string> TopicsOfFile() const;
    void Step();
    void FollowConnection();
    void Subscribe();
    void Announce();
    void BeginAsking();
    void TakeMessages();
    void TakeMessage(const Broker::Message& message);
    void TakeSign(const std::string& payload);
    void TakeOwnSign(unsigned long count);
    void SendSign();
    void TakeClaim(const std::string& payload);
    void Claim();
    void TakeLeftover(const Broker::Message& message);
    void FollowPhase();
    bool IsAllPublished();
    void GoOnline();
    void DefendOwnTopics();
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
    std::string StatusLine() const;

    MqttConfig& m_config;
    const Topics m_topics;
    Log m_log;
    const std::function<void(const std::string&)> m_tell;
    PinBook m_pins;
    PinFollower& m_bus;
    Broker m_broker;
    Sets m_sets;
    LossFile m_losses;
    Links m_links;

    Notify m_notify;
    Phase m_phase = Phase::Away;
    unsigned int m_connection = 0;
    bool m_bus_up = true;
    uint64_t m_dropped = 0;  // events, as far as reported
    TimePoint m_next_complaint{};
    bool m_has_more = false;
    std::set<uint32_t> m_unannounced;     // pins to announce to hubs
    std::set<uint32_t> m_levels;          // pins whose level topic is due
    TimePoint m_rest = TimePoint::max();  // when to call PublishRest(); max: at once
    std::map<uint32_t, Broker::Outgoing> m_unacknowledged;  // answers, by number

    std::set<std::string> m_leftovers;  // retained topics that it has not published

    const uint32_t m_number;  // identifies this run of the bridge
    bool m_was_connected = false;
    bool m_has_claimed = false;  // the site, on this connection
    std::string m_rival;         // who else has claimed it; empty: nobody
    std::string m_status;        // as last published
    std::string m_seen_status;   // as last received
    TimePoint m_next_defence{};
    bool m_is_taken_over = false;
    unsigned long m_sign_count = 0;
    std::deque<std::pair<unsigned long, TimePoint>> m_signs;  // those that have not come back
    TimePoint m_next_sign{};
    TimePoint m_own_sign{};  // when the last returned one was sent
    TimePoint m_connected_at{};
};
