// Messages as JSON, one object a line:
//
//   {"time":1714564800.25,"host":"10.77.0.1","port":2055,"reliable":false,"id":"INDI","items":[
//     {"tag":66061,"type":"byte","value":1,"pin":"1:2:in1","name":"studio1.door","level":"L"}]}
//
//   time      seconds since 1970
//   host      address of the sender, null for a message of this program
//   port      UDP port that the message was sent to
//   reliable  whether it asked for acknowledgement
//   id        four printable characters, or "0x" and eight digits
//   items     in their order; tag and value as they travel
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
// Items of the known identifiers that name a pin have a "pin", its "name" and "text" when it has
// them, with a byte a "level" (L or H) and, in writes, a "duration" (ms, when there is one) as
// well. They say what tag and value say.
//
// What is not ASCII, or a control character, is escaped: a line is safe on any terminal.
#pragma once

#include <string>

#include "tools/bus/Names.h"
#include "tools/bus/Traffic.h"

// The line without its end.
std::string ToJson(const Traffic& traffic, const Names& names = Names());

// Takes all but the host from a line; message.GetRel() is "reliable". Only "id" and "items" must be
// there. A "pin", or its name, may stand in for a "tag", and "id" may be a number. Without "time"
// it is 0. An item of type 0 is read but can't be sent.
//
// Also takes the objects of PinJson.h, and others with a "pin" and a "level": a "kind" of report or
// reply makes a report, to that port; all else makes a write. False, with nothing to be sent, for
// what says nothing about a pin that can be set: an "event", a level of null, an input without a
// kind. Throws std::invalid_argument with the reason.
bool FromJson(const std::string& line, Traffic& traffic, const Names& names = Names());

// The parts that texts for people share.
std::string IdText(uint32_t id);
std::string TypeText(const CMsg2::Node& item);
std::string ValueText(const CMsg2::Node& item);
