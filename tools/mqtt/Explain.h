// Why a linked output has its level.
#pragma once

#include <string>

#include "tools/mqtt/Config.h"

// Asks the broker for about two seconds, and prints what it tells of the output and of each source
// of its link, and what follows: lines on standard output. The pin is written as in the file, at
// this site also without the site. Nothing changes, at the broker or on a bus. Without a broker it
// reads the pins from the bus instead.
//
// Throws std::runtime_error with the reason if no link of the file sets the pin, or if there is no
// connection to the broker in ten seconds; BusError if the bus can't be used.
void Explain(const MqttConfig& config, const std::string& pin);
