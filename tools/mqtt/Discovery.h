// Messages that make home-automation hubs create a device with an entity for each pin.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/mqtt/Config.h"
#include "tools/mqtt/Topics.h"

// The entities of a device, "in1": "binary_sensor" and so on.
using Entities = std::map<std::string, std::string>;

// "homeassistant/device/orvex_studio/1_2/config": one for each address on the bus. Retained, so
// that a hub finds it whenever it connects.
std::string DiscoveryTopic(const MqttConfig& config, uint32_t address);

// What matches all of them, and the address in one; none for other topics.
std::string DiscoveryFilter(const MqttConfig& config);
std::optional<uint32_t> DiscoveredAddress(const MqttConfig& config, const std::string& topic);

// An output is a switch, an input a binary_sensor. The pins have one address.
Entities EntitiesOf(const std::vector<uint32_t>& tags);

// Those in a message, also in one of somebody else; empty if it is malformed.
Entities ParseEntities(const std::string& text);

// An object with the topics of these pins, of one address, and what the hub shall remove. L is on;
// a pin is not available while its site is offline or its level is not known. Pins beyond 60,000
// bytes are left out.
std::string DiscoveryText(const MqttConfig& config, const std::vector<uint32_t>& tags,
                          const Entities& gone);
