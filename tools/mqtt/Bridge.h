// Connects a bus and a broker.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tools/base/Log.h"
#include "tools/base/Notify.h"
#include "tools/base/Signals.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/Metrics.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Presence.h"
#include "tools/mqtt/Publisher.h"
#include "tools/mqtt/Sets.h"
#include "tools/mqtt/Topics.h"

// After each outage of broker or bus it reads all pins, publishes their states, and then sets the
// site online. Until then it publishes nothing about pins and refuses sets.
//
// Before it is online it also removes what an earlier bridge of this site has left at the broker
// about pins and devices that do not answer any more.
//
// One that stands by does all that too but publish and write, so that it can go on where the active
// bridge has ended.
class Bridge {
public:
    enum class End { Stopped, TakenOver };

    // Throws BusError. The configuration changes when it is read again. metrics is a file; empty:
    // none.
    Bridge(MqttConfig& config, const std::string& metrics,
           std::function<void(const std::string&)> print);

    // Runs until a signal comes, or another bridge takes the site over. SIGHUP reads the file
    // again: names, pins and links may change.
    End Run(Signals& signals);

private:
    enum class Phase { Away, Connected, StandingBy, Asking, Publishing, Online };

    bool Wait(const Signals& signals);
    void Reload();
    void Follow(const MqttConfig& fresh);
    void Step();
    void FollowConnection();
    void Subscribe();
    void SubscribeAnnounced();
    void TakeMessages();
    void TakeMessage(const Broker::Message& message);
    void TakeLeftover(const Broker::Message& message);
    void TakeTraffic(const Traffic& traffic);
    void BeginAsking();
    void FollowPhase();
    void FollowBus();
    void FollowRole();
    void FollowDropped();
    void StandBy();
    void TakeOver();
    void GoOnline();
    bool MayCarryOutLinks();
    void CompareOutputs();
    void CarryOutLinks();
    void Write(const Links::Write& write);
    void Send(const Links::Write& write);
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
    Presence m_presence;
    Publisher m_publisher;
    Metrics m_metrics;

    Notify m_notify;
    Phase m_phase = Phase::Away;
    unsigned int m_connection = 0;
    bool m_bus_up = true;
    bool m_was_cut_off = false;
    uint64_t m_dropped = 0;  // events, as far as reported
    TimePoint m_next_complaint{};
};
