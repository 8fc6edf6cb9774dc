// What a bridge publishes of its pins and devices, and in which order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Discovery.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Sets.h"
#include "tools/mqtt/Topics.h"

// Publishes answers to sets and the states of pins at once. The rest follows after a short pause,
// which no link waits for: levels, devices, events, what is announced to hubs, and the removal of
// leftovers, the retained topics that this bridge has not published itself.
class Publisher {
public:
    // All are used while it exists. bridge is the number in the states.
    Publisher(const MqttConfig& config, const Topics& topics, PinBook& pins, const Links& links,
              Sets& sets, Broker& broker, uint32_t bridge);

    // Announces the pins to hubs, if the file wants it. Call it after each connection.
    void Announce();

    // What the broker has retained for hubs: what is no longer in the file is removed there.
    void TakeAnnounced(uint32_t address, const std::string& payload);

    // The configuration has changed from that one: all pins are published again, and what only that
    // one caused is removed.
    void Follow(const MqttConfig& before);

    // Notes a topic that the broker has retained, or has no longer. Removes it, unless it is
    // published before its turn comes.
    void TakeLeftover(const std::string& topic, bool is_retained);

    // Another bridge has published a state of this site: everything is published again.
    void TakeForeign(const std::string& topic);

    // The pins in the leftovers.
    std::set<uint32_t> LeftPins() const;

    // Publishes what waits, as much as the broker accepts, up to a bound for each turn of the loop.
    // Without pins, only answers. Call it in every turn, and at NextTime().
    void Publish(bool pins);
    TimePoint NextTime() const;

    // Whether the broker has everything that this bridge has to say before its site is online.
    bool IsDone() const;

private:
    void Repair();
    bool PublishPins();
    bool PublishRest();
    void AnnounceDevice(uint32_t address);
    void PublishPin(uint32_t tag);
    void PublishLevel(uint32_t tag);
    void PublishChange(const PinChange& change);
    void PublishDevice(uint32_t host);
    void Retain(const std::string& topic, const std::string& payload);

    const MqttConfig& m_config;
    const Topics& m_topics;
    PinBook& m_pins;
    const Links& m_links;
    Sets& m_sets;
    Broker& m_broker;
    const uint32_t m_bridge;

    bool m_has_more = false;
    TimePoint m_rest = TimePoint::max();  // when to call PublishRest(); max: at once
    std::set<uint32_t> m_levels;          // pins whose level topic is due
    std::set<uint32_t> m_unannounced;     // addresses to announce to hubs
    std::map<uint32_t, Entities> m_announced;
    std::set<std::string> m_leftovers;
    std::set<std::string> m_foreign;
    TimePoint m_next_repair{};
};
