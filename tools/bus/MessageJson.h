// Messages as JSON, one object per line:
//
//   {"time":1714564800.25,"host":"10.77.0.1","port":2055,"reliable":false,"id":"INDI","items":[
//     {"tag":66061,"type":"byte","value":1,"pin":"1:2:in1","name":"studio1.door","level":"L"}]}
//
//   time      seconds since 1970
//   host      address of the sender, null for a message of this program
//   port      UDP port that the message was sent to
//   reliable  whether it asked for acknowledgement
//   id        four printable characters, or "0x" and eight digits
//   items     in their order; tag and value as transmitted
//
//   type of an item                  value
//   byte, word, dword, qword         a number
//   string                           text: what is no UTF-8 as \xNN, a backslash as two; null
//                                    without text; an array of bytes when its last one isn't 0
//   bytes, words, dwords             an array of numbers
//   message                          {"id":...,"items":[...]}; deeper than 32 levels an array of
//                                    the bytes that encode it
//   a number (the code of a type     the item's count
//   that isn't known)
//
// Items of known identifiers that are pins also have a "pin", its "name" and "text" if it has them,
// for a byte a "level" (L or H) and, in writes, a "duration" (ms, if there is one). These fields
// restate tag and value.
//
// All characters but printable ASCII are escaped: a line is safe on any terminal.
#pragma once

#include <string>

#include "tools/bus/Names.h"
#include "tools/bus/Traffic.h"

// The line without its end.
std::string ToJson(const Traffic& traffic, const Names& names = Names());

// Reads everything but the host from a line; message.GetRel() is "reliable". Only "id" and "items"
// are required. A "pin", or its name, may replace a "tag", and "id" may be a number. Without "time"
// the time is 0. An item of type 0 is read but can't be sent.
//
// Also accepts the objects of PinJson.h, and others with a "pin" and a "level": with a "kind" of
// report or reply they become a report, to that port; otherwise a write. False, with nothing to
// send, for objects about no pin that can be set: an "event", a level of null, an input without a
// kind. Throws std::invalid_argument with the reason.
bool FromJson(const std::string& line, Traffic& traffic, const Names& names = Names());

// Parts shared with texts for people.
std::string IdText(uint32_t id);
std::string TypeText(const CMsg2::Node& item);
std::string ValueText(const CMsg2::Node& item);
