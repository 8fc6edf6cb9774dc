#include "tools/mqtt/Publisher.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinJson.h"

namespace {

const size_t MOST_LEFTOVERS = 50000;
const size_t LONGEST_TOPIC = 300;
// In seconds:
const double REST_PAUSE = 0.001;
const double REPAIR_EVERY = 0.5;
// In one turn of the loop. Enough for a state and an event for each message that is taken from the
// bus in a turn, so that a burst from the bus does not fill the queue.
const int MOST_PUBLISHED = 1000;

// Takes the first one; the set is not empty.
template <typename Key>
Key TakeFirst(std::set<Key>& keys) {
    return keys.extract(keys.begin()).value();
}

const size_t MOST_ANNOUNCED = 5000;  // addresses
const size_t MOST_ENTITIES = 512;    // of one

// The pins of the file by address.
std::map<uint32_t, std::vector<uint32_t>> PinsByAddress(const MqttConfig& config) {
    std::map<uint32_t, std::set<uint32_t>> found;
    for (const PinRef& pins : config.pins) {
        for (const uint32_t tag : pins.Tags()) {
            found[tag >> 8].insert(tag);
        }
    }
    std::map<uint32_t, std::vector<uint32_t>> sorted;
    for (const auto& [address, tags] : found) {
        sorted[address].assign(tags.begin(), tags.end());
    }
    return sorted;
}

// The retained topics that depend on the names.
std::set<std::string> TopicsOfFile(const MqttConfig& config, const Topics& topics) {
    std::set<std::string> found;
    for (const PinRef& pins : config.pins) {
        for (const uint32_t tag : pins.Tags()) {
            const std::string name = config.names.NameOf(tag);
            if (!name.empty()) {
                found.insert(topics.Pin(name));
                found.insert(topics.Level(name));
            }
        }
    }
    return found;
}

}  // namespace

Publisher::Publisher(const MqttConfig& config, const Topics& topics, PinBook& pins,
                     const Links& links, Sets& sets, Broker& broker, uint32_t bridge)
    : m_config(config),
      m_topics(topics),
      m_pins(pins),
      m_links(links),
      m_sets(sets),
      m_broker(broker),
      m_bridge(bridge) {}

void Publisher::Follow(const MqttConfig& before) {
    m_leftovers.merge(TopicsOfFile(before, m_topics));
    for (const std::string& topic : TopicsOfFile(m_config, m_topics)) {
        m_leftovers.erase(topic);
    }
    if (before.discovery != m_config.discovery) {
        for (const auto& device : std::exchange(m_announced, {})) {
            m_leftovers.insert(DiscoveryTopic(before, device.first));
        }
    }
    m_pins.TellAll();
    Announce();
}

// Only pins in the files: hubs make an entity of each.
void Publisher::Announce() {
    m_unannounced.clear();
    if (!m_config.discovery.empty()) {
        for (const auto& device : m_announced) {
            m_unannounced.insert(device.first);
        }
        for (const auto& device : PinsByAddress(m_config)) {
            m_unannounced.insert(device.first);
        }
    }
}

void Publisher::TakeAnnounced(uint32_t address, const std::string& payload) {
    Entities entities = ParseEntities(payload);
    const bool is_bounded = m_announced.size() < MOST_ANNOUNCED && entities.size() < MOST_ENTITIES;
    if (!payload.empty() && is_bounded) {
        m_announced[address].merge(entities);
        m_unannounced.insert(address);
    }
}

// A hub keeps an entity that is merely missing until it starts again.
void Publisher::AnnounceDevice(uint32_t address) {
    const std::vector<uint32_t> tags = PinsByAddress(m_config)[address];
    const std::string topic = DiscoveryTopic(m_config, address);
    if (tags.empty()) {
        m_announced.erase(address);
        return Retain(topic, {});
    }
    const Entities entities = EntitiesOf(tags);
    Entities gone = std::exchange(m_announced[address], entities);
    for (const auto& entity : entities) {
        gone.erase(entity.first);
    }
    if (!gone.empty()) {
        Retain(topic, DiscoveryText(m_config, tags, gone));
    }
    Retain(topic, DiscoveryText(m_config, tags, {}));
}

void Publisher::TakeLeftover(const std::string& topic, bool is_retained) {
    if (!is_retained) {
        m_leftovers.erase(topic);
    } else if (topic.size() <= LONGEST_TOPIC && m_leftovers.size() < MOST_LEFTOVERS) {
        m_leftovers.insert(topic);
    }
}

void Publisher::TakeForeign(const std::string& topic) {
    if (topic.size() <= LONGEST_TOPIC && m_foreign.size() < MOST_LEFTOVERS) {
        m_foreign.insert(topic);
    }
}

// Pins go before leftovers: what this bridge has to say is never missing.
void Publisher::Repair() {
    if (!m_foreign.empty() && Now() >= m_next_repair) {
        m_next_repair = After(REPAIR_EVERY);
        m_leftovers.merge(m_foreign);
        m_foreign.clear();
        m_pins.TellAll();
    }
}

std::set<uint32_t> Publisher::LeftPins() const {
    std::set<uint32_t> pins;
    for (const std::string& topic : m_leftovers) {
        try {
            pins.insert(ParsePin(m_topics.PinOfState(topic)));
        } catch (const std::invalid_argument&) {
            // The topic of a level, a name or a device.
        }
    }
    return pins;
}

bool Publisher::IsDone() const {
    return m_pins.Changed().empty() && m_levels.empty() && m_pins.ChangedDevices().empty() &&
           m_leftovers.empty();
}

TimePoint Publisher::NextTime() const {
    if (!m_broker.CanSend()) {
        return TimePoint::max();
    }
    return m_has_more ? Now() : m_rest;
}

// In the order of urgency.
void Publisher::Publish(bool pins) {
    m_has_more = false;
    if (pins) {
        Repair();
    }
    const bool is_due = Now() >= m_rest;
    for (int count = 0; m_broker.CanSend(); ++count) {
        if (count == MOST_PUBLISHED) {
            m_has_more = true;
            return;
        }
        if (m_sets.PublishAnswer(m_broker) || (pins && PublishPins())) {
            continue;
        }
        if (pins && (is_due || m_rest == TimePoint::max()) && PublishRest()) {
            continue;
        }
        if (is_due) {
            m_rest = TimePoint::max();
        }
        return;
    }
}

// False if there is nothing.
bool Publisher::PublishPins() {
    if (m_pins.Changed().empty()) {
        return false;
    }
    PublishPin(TakeFirst(m_pins.Changed()));
    return true;
}

// False if there is nothing. At once, it would compete for the processor with the broker and the
// far bridge just when these handle a change.
bool Publisher::PublishRest() {
    if (!m_levels.empty()) {
        PublishLevel(TakeFirst(m_levels));
    } else if (!m_pins.ChangedDevices().empty()) {
        PublishDevice(TakeFirst(m_pins.ChangedDevices()));
    } else if (!m_leftovers.empty()) {
        Retain(std::string(*m_leftovers.begin()), {});  // a copy: the original is erased
    } else if (!m_unannounced.empty()) {
        AnnounceDevice(TakeFirst(m_unannounced));
    } else if (!m_pins.Changes().empty()) {
        PublishChange(m_pins.Changes().front());
        m_pins.Changes().pop_front();
    } else {
        return false;
    }
    return true;
}

void Publisher::PublishPin(uint32_t tag) {
    PinView view = m_pins.ViewOf(tag);
    view.bridge = m_bridge;
    view.via = m_links.ViaOf(tag, view.level);
    const std::string text = StateText(view, tag, m_config.names);
    for (const std::string& pin : {PinText(tag), m_config.names.NameOf(tag)}) {
        if (!pin.empty()) {
            Retain(m_topics.Pin(pin), text);
        }
    }
    m_levels.insert(tag);
    if (m_rest == TimePoint::max()) {
        m_rest = After(REST_PAUSE);
    }
}

void Publisher::PublishLevel(uint32_t tag) {
    const std::optional<Level> level = m_pins.ViewOf(tag).level;
    for (const std::string& pin : {PinText(tag), m_config.names.NameOf(tag)}) {
        if (!pin.empty()) {
            Retain(m_topics.Level(pin), level ? LevelText(level) : std::string());
        }
    }
}

void Publisher::PublishDevice(uint32_t host) {
    const auto& devices = m_pins.Follower().Devices();
    const auto device = devices.find(host);
    std::string text;  // none if it is forgotten
    if (device != devices.end()) {
        text = Dump({{"state", device->second.is_silent ? "silent" : "heard"},
                     {"since", device->second.since}});
    }
    Retain(m_topics.Device(HostText(host)), text);
}

void Publisher::PublishChange(const PinChange& change) {
    m_broker.Publish(
        {m_topics.Event(PinText(change.tag)), ToJson(change, m_config.names), false, false, {}});
}

void Publisher::Retain(const std::string& topic, const std::string& payload) {
    m_leftovers.erase(topic);
    m_broker.Publish({topic, payload, true, false, {}});
}
