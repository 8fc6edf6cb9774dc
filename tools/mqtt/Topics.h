// The topics of a site and their payloads. docs/mqtt.md describes them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/bus/PinStates.h"
#include "tools/mqtt/Config.h"

extern const char* const ONLINE;
extern const char* const OFFLINE;

class Topics {
public:
    explicit Topics(const MqttConfig& config) : Topics(config.prefix, config.site) {}
    Topics(const std::string& prefix, const std::string& site) : m_base(prefix + "/" + site) {}

    std::string Status() const { return m_base + "/status"; }
    std::string Alive() const { return m_base + "/alive"; }
    std::string Bridge() const { return m_base + "/bridge"; }
    std::string Standby() const { return m_base + "/standby"; }
    std::string Sets() const { return m_base + "/set/#"; }
    std::string Pins() const { return m_base + "/pin/#"; }
    std::string Devices() const { return m_base + "/device/+"; }
    std::string Device(const std::string& host) const { return m_base + "/device/" + host; }

    // The parts of a pin are separate levels: 1:2:in1 is pin/1/2/in1.
    std::string Pin(const std::string& pin) const { return m_base + "/pin/" + Parts(pin); }
    std::string Level(const std::string& pin) const { return Pin(pin) + "/level"; }
    std::string Event(const std::string& pin) const { return m_base + "/event/" + Parts(pin); }
    std::string Set(const std::string& pin) const { return m_base + "/set/" + Parts(pin); }

    // Whether it is the topic of a pin or device.
    bool IsOfState(const std::string& topic) const;

    // The pin in a topic that Sets() or Pins() matches, "1:2:in1:level" in one of a level; empty
    // for another topic.
    std::string PinOfSet(const std::string& topic) const { return PinAfter(Set(""), topic); }
    std::string PinOfState(const std::string& topic) const { return PinAfter(Pin(""), topic); }

private:
    static std::string PinAfter(const std::string& begin, const std::string& topic);
    static std::string Parts(std::string pin);

    std::string m_base;
};

// The published state of a pin.
struct PinView {
    std::optional<Level> level;  // none: not known
    PinStatus status = PinStatus::Unknown;
    bool denied = false;           // written low, and a device answers high: it may not know
    double since = 0;              // seconds since 1970; 0: not known
    uint32_t host = 0;             // who told or wrote it, host byte order; 0: nobody
    uint32_t bridge = 0;           // the number of the bridge that published it
    std::vector<std::string> via;  // the links that caused its state, the first one's source first
};

std::string StateText(const PinView& view, uint32_t tag, const Names& names);

// The state of a pin from another site; none if the text is malformed.
std::optional<PinView> ParseState(const std::string& text);

// A heartbeat: "17 4" is the fourth of the bridge with the number 17.
struct Sign {
    uint32_t bridge;
    unsigned long count;
};

std::string SignText(const Sign& sign);
std::optional<Sign> ParseSign(const std::string& text);  // none if the text is malformed

struct SetRequest {
    Level level;
    unsigned long duration_ms;
};

// "L", "H", "L,500" or {"level":"L","duration":500}, with white space around it. Throws
// std::invalid_argument with the reason.
SetRequest ParseSet(const std::string& payload);

// The answer to a set.
std::string AnswerText(const std::string& result, const std::string& pin,
                       const std::string& reason);
