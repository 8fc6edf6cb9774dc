// A message on the bus with its sender and time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "msg/Message.h"
#include "protocol/numbers.h"
#include "tools/bus/PinWrite.h"

enum class Kind { Report, Reply, Write, Read, Other };

// "report", "reply", "write", "read" or "other"
const char* KindName(Kind kind);

Kind KindOf(const CMessage& message);

// Not copied: a copy of a message lacks the items that CMsg2 has no setter for.
struct Traffic {
    Traffic() = default;
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    Kind GetKind() const { return KindOf(message); }

    double time = 0;    // seconds since 1970
    std::string host;   // address of the sender; empty: this program
    uint16_t port = 0;  // the port it was sent to; 0: not known
    uint32_t tid = 0;   // the transaction ID of its packet; 0: none
    CMessage message{16, 16};
};

// The first item with that tag and type, or null.
const CMsg2::Node* FindItem(const CMsg2& message, uint32_t tag, CMsg2::ItemType type);

// Whether the item can be the state of a pin, or a write of it.
bool IsPinItem(const CMsg2::Node& item);

// What an item of a message of that kind says about a pin.
struct PinValue {
    std::optional<Level> level;    // none: it says nothing
    unsigned int duration_ms = 0;  // of a write; 0: no limit
};
PinValue PinValueOf(Kind kind, const CMsg2::Node& item);
