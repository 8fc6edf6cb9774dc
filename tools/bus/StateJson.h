// The state of a pin that is followed, in the forms in which it is published. People and programs
// read each of them, so their fields stay; docs/json.md compares them.
#pragma once

#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinJson.h"

// As orvexctl top and the board's API tell it. The caller may add fields.
Json TopJson(uint32_t tag, const PinState& state, const Names& names);
Json BoardJson(uint32_t tag, const PinState& state, const Names& names);

// With more fields, an object that may be empty. A text, because it is on the path of links, and
// objects of the library take three times as long.
std::string MqttText(const PinFact& fact, PinStatus status, const Json& more, const Names& names);

// Adds the pin's name, text (as "title") and group to an object for the board.
void PutBoardNames(Json& json, uint32_t tag, const Names& names);
