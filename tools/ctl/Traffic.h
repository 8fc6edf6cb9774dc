// A message on the bus and what is known about its way.
#pragma once

#include <cstdint>
#include <string>

#include "msg/Message.h"

const uint32_t ID_REPORT = 0x494E4449;       // "INDI": pin states, told or asked for
const uint32_t ID_WRITE = 0x57524E49;        // "WRNI": set pins
const uint32_t ID_WRITE_ALIAS = 0x5752494E;  // "WRIN": the same
const uint32_t ID_READ = 0x52454144;         // "READ": ask for pin states

const uint32_t TAG_REQUEST_ID = 0xFFFFFFFF;  // dword of a request
const uint32_t TAG_REFERS_TO = 0xFFFFFFFE;   // dword of a reply: the request's identifier

enum class Kind { Report, Reply, Write, Read, Other };

// Not copied: a copy of a message is without what CMsg2 has no setter for.
struct Traffic {
    Traffic() = default;
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    Kind GetKind() const;

    double time = 0;    // seconds since 1970
    std::string host;   // address of the sender; empty: this program
    uint16_t port = 0;  // where it was sent to; 0: not known
    CMessage message{16, 16};
};

// The first item with that tag and type, or null.
const CMsg2::Node* FindItem(const CMsg2& message, uint32_t tag, CMsg2::ItemType type);

// The time of day for Traffic::time.
double TimeOfDay();
