// Messages as lines for people.
//
//   14:02:11.512  10.77.0.1        report  1:2:in1       L      studio1.door
#pragma once

#include <functional>
#include <string>

#include "tools/bus/Names.h"
#include "tools/bus/Traffic.h"

// How messages are shown.
struct TextForm {
    const Names& names;
    bool everything = false;                             // all items, not only pins
    std::function<bool(uint32_t tag)> wanted = nullptr;  // pins to show; null: all
};

// A line for each pin, in columns: time, sender, kind of message, pin, level with its duration,
// name. Other items have a line with tag, type and value as in the JSON form, in messages of
// unknown kind, or with everything in all messages. A message without items gets a line too.
std::string ToText(const Traffic& traffic, const TextForm& form);

// "L for 250 ms"
std::string LevelText(const PinValue& value);

// The time of day, local, to the millisecond: "14:02:11.512".
std::string TimeText(double time);

// Padded with blanks.
std::string Padded(const std::string& text, size_t width);
