#include "tools/mqtt/Discovery.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinName.h"

namespace {

// Hubs read the level from the object, where null means unknown. They would ignore the empty topic
// of the level alone.
const char* const IS_KNOWN = "{{ 'offline' if value_json.level is none else 'online' }}";

// With '.', '_' and '-' in hex, so that no two names become one.
std::string Escaped(const std::string& name) {
    std::string escaped;
    for (const char c : name) {
        char code[4] = {c, '\0'};
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
            snprintf(code, sizeof code, "-%02x", static_cast<unsigned int>(c));
        }
        escaped += code;
    }
    return escaped;
}

}  // namespace

std::string DiscoveryTopic(const MqttConfig& config, uint32_t tag) {
    // Hubs allow no other characters.
    std::string id = Escaped(config.prefix) + "_" + Escaped(config.site) + "_" + PinText(tag);
    std::replace(id.begin(), id.end(), ':', '_');
    return config.discovery + (IsInput(tag) ? "/binary_sensor/" : "/switch/") + id + "/config";
}

std::string DiscoveryText(const MqttConfig& config, uint32_t tag) {
    const Topics topics(config);
    const std::string pin = PinText(tag);
    const std::string text = config.names.TextOf(tag);
    const std::string name = config.names.NameOf(tag);
    const std::string site = config.prefix + "/" + config.site;
    Json json;
    json["name"] = !text.empty() ? text : !name.empty() ? name : pin;
    json["unique_id"] = site + "/" + pin;
    json["state_topic"] = topics.Level(pin);
    json["payload_on"] = "L";
    json["payload_off"] = "H";
    if (!IsInput(tag)) {
        json["command_topic"] = topics.Set(pin);
        json["state_on"] = "L";
        json["state_off"] = "H";
    }
    json["availability"] = {{{"topic", topics.Status()}},
                            {{"topic", topics.Pin(pin)}, {"value_template", IS_KNOWN}}};
    json["availability_mode"] = "all";
    json["device"] = {{"identifiers", Json::array({site})}, {"name", config.site}};
    json["origin"] = {{"name", "orvex-mqtt"}};
    return Dump(json);
}
