// Messages as lines for people.
//
//   14:02:11.512  10.77.0.1        report  1:2:in1       L
#pragma once

#include <string>

#include "tools/bus/Traffic.h"

// A line for each pin, in columns: time, sender, kind of message, pin, level with its duration.
// Of messages of unknown kind, and with everything of all, each other item has a line as well: its
// tag, type and value as in the JSON form. A message without a line of its own gets one.
std::string ToText(const Traffic& traffic, bool everything);

// "L for 250 ms"
std::string LevelText(const PinValue& value);
