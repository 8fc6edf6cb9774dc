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
    std::string Sets() const { return m_base + "/set/#"; }
    std::string Device(const std::string& host) const { return m_base + "/device/" + host; }

    // The parts of a pin are separate levels: 1:2:in1 is pin/1/2/in1.
    std::string Pin(const std::string& pin) const { return m_base + "/pin/" + Parts(pin); }
    std::string Level(const std::string& pin) const { return Pin(pin) + "/level"; }
    std::string Event(const std::string& pin) const { return m_base + "/event/" + Parts(pin); }
    std::string Set(const std::string& pin) const { return m_base + "/set/" + Parts(pin); }

    // The pin in a topic that Sets() matches; empty for another topic.
    std::string PinOfSet(const std::string& topic) const;

private:
    static std::string Parts(std::string pin);

    std::string m_base;
};

// The published state of a pin.
struct PinView {
    std::optional<Level> level;  // none: not known
    PinStatus status = PinStatus::Unknown;
    double since = 0;              // seconds since 1970
    std::string host;              // who told or wrote it; empty: nobody
    std::vector<std::string> via;  // the links that caused its state, the first one's source first
};

std::string StateText(const PinView& view, uint32_t tag, const Names& names);

// The state of a pin from another site; none if the text is malformed.
std::optional<PinView> ParseState(const std::string& text);

struct SetRequest {
    Level level;
    unsigned long duration_ms;
};

// "L", "H", "L,500" or {"level":"L","duration":500}. Throws std::invalid_argument with the reason.
SetRequest ParseSet(const std::string& payload);

// The answer to a set.
std::string AnswerText(const std::string& result, const std::string& pin,
                       const std::string& reason);
