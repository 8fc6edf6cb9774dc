#include "tools/mqtt/Discovery.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <stdexcept>

#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinName.h"

namespace {

const size_t LARGEST_TEXT = 60000;  // bytes; MQTT packets have a bound

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

// Hubs allow no other characters in the parts of a topic.
std::string BeginOfTopics(const MqttConfig& config) {
    return config.discovery + "/device/" + Escaped(config.prefix) + "_" + Escaped(config.site) +
           "/";
}

const char* const END_OF_TOPICS = "/config";

const char* PlatformOf(uint32_t tag) {
    return IsInput(tag) ? "binary_sensor" : "switch";
}

// "in1"
std::string EntityOf(uint32_t tag) {
    const std::string pin = PinText(tag);
    return pin.substr(pin.rfind(':') + 1);
}

Json EntityJson(const MqttConfig& config, uint32_t tag) {
    const Topics topics(config);
    const std::string pin = PinText(tag);
    const std::string text = config.names.TextOf(tag);
    const std::string name = config.names.NameOf(tag);
    Json json;
    json["platform"] = PlatformOf(tag);
    json["name"] = !text.empty() ? text : !name.empty() ? name : EntityOf(tag);
    json["unique_id"] = config.prefix + "/" + config.site + "/" + pin;
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
    return json;
}

}  // namespace

std::string DiscoveryTopic(const MqttConfig& config, uint32_t address) {
    std::string id = AddressText(address);
    std::replace(id.begin(), id.end(), ':', '_');
    return BeginOfTopics(config) + id + END_OF_TOPICS;
}

std::string DiscoveryFilter(const MqttConfig& config) {
    return BeginOfTopics(config) + "+" + END_OF_TOPICS;
}

std::optional<uint32_t> DiscoveredAddress(const MqttConfig& config, const std::string& topic) {
    const std::string begin = BeginOfTopics(config);
    if (config.discovery.empty() || topic.compare(0, begin.size(), begin) != 0) {
        return std::nullopt;
    }
    std::string id = topic.substr(begin.size(), topic.find('/', begin.size()) - begin.size());
    std::replace(id.begin(), id.end(), '_', ':');
    try {
        return ParsePinRef(id).address;
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    }
}

Entities EntitiesOf(const std::vector<uint32_t>& tags) {
    Entities entities;
    for (const uint32_t tag : tags) {
        entities[EntityOf(tag)] = PlatformOf(tag);
    }
    return entities;
}

Entities ParseEntities(const std::string& text) {
    Entities entities;
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_object() && json.contains("components") && json["components"].is_object()) {
        for (const auto& [entity, value] : json["components"].items()) {
            if (value.is_object() && value.contains("platform") && value["platform"].is_string()) {
                entities[entity] = value["platform"].get<std::string>();
            }
        }
    }
    return entities;
}

std::string DiscoveryText(const MqttConfig& config, const std::vector<uint32_t>& tags,
                          const Entities& gone) {
    const std::string address = AddressText(tags.at(0) >> 8);
    Json json;
    json["device"] = {
        {"identifiers", Json::array({config.prefix + "/" + config.site + "/" + address})},
        {"name", config.site + " " + address}};
    json["origin"] = {{"name", "orvex-mqtt"}, {"sw_version", ORVEX_VERSION}};
    if (!config.board.empty()) {
        json["device"]["configuration_url"] = config.board;
        json["origin"]["support_url"] = config.board;
    }
    Json& components = json["components"];
    for (const auto& [entity, platform] : gone) {
        components[entity] = {{"platform", platform}};
    }
    size_t size = Dump(json).size();
    for (const uint32_t tag : tags) {
        const Json entity = EntityJson(config, tag);
        size += Dump(entity).size() + EntityOf(tag).size() + 4;  // with quotes, colon and comma
        if (size <= LARGEST_TEXT) {
            components[EntityOf(tag)] = entity;
        }
    }
    return Dump(json);
}
