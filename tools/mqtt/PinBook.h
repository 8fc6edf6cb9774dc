// The pins of a bus, as they are published.
#pragma once

#include <deque>
#include <functional>
#include <set>
#include <string>

#include "tools/bus/PinFollower.h"
#include "tools/mqtt/Config.h"
#include "tools/mqtt/Topics.h"

// Collects what is to be published of what a PinFollower finds. The constructor may throw BusError.
class PinBook {
public:
    // Troubles with the bus are reported as texts.
    PinBook(const MqttConfig& config, std::function<void(const std::string&)> tell);

    PinFollower& Follower() { return m_follower; }

    // Reads all pins that are known or wanted, and others, for at most a second. Those that do not
    // answer are unknown afterwards. It does not wait for those that did not answer before.
    void AskAll(const std::set<uint32_t>& others);

    // What has happened since it was last cleared: pins that may have changed, changes, devices.
    std::set<uint32_t>& Changed() { return m_changed; }
    // The same pins. Taken in every turn; Changed() waits for the broker.
    std::set<uint32_t>& Heard() { return m_heard; }
    std::deque<PinChange>& Changes() { return m_changes; }
    std::set<uint32_t>& ChangedDevices() { return m_changed_devices; }

    // Changes that were dropped because nobody took them.
    uint64_t Dropped() const { return m_dropped; }

    // Stores and reads the pins of the configuration.
    void Want(const MqttConfig& config);

    // Marks everything as changed.
    void TellAll();

    PinView ViewOf(uint32_t tag) const;

private:
    void Add(const PinChange& change);

    PinFollower m_follower;
    std::set<uint32_t> m_changed;
    std::set<uint32_t> m_heard;
    std::deque<PinChange> m_changes;
    uint64_t m_dropped = 0;
    std::set<uint32_t> m_changed_devices;
};
