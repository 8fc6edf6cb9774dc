// The pins of a bus, as they are published.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tools/bus/BusLink.h"
#include "tools/bus/PinStates.h"
#include "tools/bus/Question.h"
#include "tools/bus/RepeatFilter.h"
#include "tools/mqtt/Config.h"
#include "tools/mqtt/Topics.h"

// Follows the bus. It keeps reading every pin, so that none is published with an outdated level: a
// pin that is silent for three rounds is unknown.
//
// For a program with a loop: wait until one of Descriptors() is readable or NextTime() has come,
// then call Serve(). Only the constructor may throw BusError.
class PinBook {
public:
    // Devices that have answered or reported.
    struct Device {
        double since;  // seconds since 1970
        TimePoint heard;
        bool silent = false;
    };

    explicit PinBook(const MqttConfig& config);

    std::vector<int> Descriptors() const { return m_link.Descriptors(); }
    TimePoint NextTime() const;
    void Serve();

    // Reads all pins that are known or wanted, and others, for at most a second. Those that do not
    // answer are unknown afterwards. It does not wait for those that were silent before.
    void AskAll(const std::set<uint32_t>& others);
    bool IsAsking() const { return m_question.has_value(); }

    bool IsUp() const { return m_up; }

    // What has happened since it was last cleared: pins that may have changed, changes, devices.
    std::set<uint32_t>& Changed() { return m_changed; }
    std::deque<PinChange>& Changes() { return m_changes; }
    std::set<uint32_t>& ChangedDevices() { return m_changed_devices; }

    // Changes that were dropped because nobody took them.
    uint64_t Dropped() const { return m_dropped; }

    // Marks everything as changed.
    void TellAll();

    PinView ViewOf(uint32_t tag) const;
    const std::map<uint32_t, Device>& Devices() const { return m_devices; }  // by address

    // Throws BusError.
    void Write(uint32_t tag, const WriteValue& value);
    void Ask(uint32_t tag, uint32_t request_id);

    // Is called with the answers of devices.
    std::function<void(const Traffic&)> on_reply;

    // What happened to the interface; empty if nothing did.
    std::string TakeNote();

private:
    void Take(const Traffic& traffic);
    void NoteDevice(const Traffic& traffic);
    void Add(const std::vector<PinChange>& changes);
    void Tend();
    void EndQuestion();
    void FindSilent();
    void FindLost();
    void AskWithin(double seconds);
    void Silence(uint32_t tag);

    const MqttConfig& m_config;
    BusLink m_link;
    const uint32_t m_id;
    PinStates m_states;
    RepeatFilter m_repeats;
    std::optional<Question> m_question;
    TimePoint m_asked{};  // when the reads began
    TimePoint m_round;
    TimePoint m_look;     // when to check for losses
    uint64_t m_lost = 0;  // datagrams
    bool m_up = true;
    std::string m_note;
    std::set<uint32_t> m_silent;
    std::set<uint32_t> m_changed;
    std::deque<PinChange> m_changes;
    uint64_t m_dropped = 0;
    std::map<uint32_t, Device> m_devices;
    std::set<uint32_t> m_changed_devices;
    std::minstd_rand m_random;
};
