// The MQTT client: libmosquitto in a process of its own.
#pragma once

#include <string>

#include "tools/mqtt/Config.h"

// Some versions of the library abort when a broker sends malformed packets, and take as much memory
// as it announces. In a process of its own that ends a connection, not the bridge, which has lamps
// to switch off.
//
// Call it in a new child of a process without threads. It connects once, exchanges ClientPackets
// over the socket, and ends with the connection, or when the bridge ends or is silent for long. It
// closes all other descriptors except the standard streams.
// With a will, the broker publishes that the site is offline if the connection ends by itself.
[[noreturn]] void RunClient(const MqttConfig& config, const std::string& name, bool has_will,
                            int socket);
