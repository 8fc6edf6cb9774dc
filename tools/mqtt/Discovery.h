// Messages that make home-automation hubs create an entity for a pin.
#pragma once

#include <cstdint>
#include <string>

#include "tools/mqtt/Config.h"
#include "tools/mqtt/Topics.h"

// "homeassistant/switch/orvex_studio_1_2_out1/config": an output is a switch, an input a
// binary_sensor. Retained, so that a hub finds it whenever it connects.
std::string DiscoveryTopic(const MqttConfig& config, uint32_t tag);

// An object with the topics of the pin. L is on; the pin is not available while its site is offline
// or its level is not known. All pins of a site are one device.
std::string DiscoveryText(const MqttConfig& config, uint32_t tag);
