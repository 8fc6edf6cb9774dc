// What configuration lines say: where the output of a channel is driven from. These functions only
// parse text, so that other programs can find out how the daemon reads a line.
#pragma once

#include <cstdint>

#include "protocol/numbers.h"

// Where a channel's output is driven from.
enum ChannelKind : uint32_t {
    KIND_NONE = 0,
    KIND_REMOTE = 1,  // its GPO follows one GPI of a remote GPIO server
    KIND_BUS = 2      // its GPO is written, and its GPI reported, on the multicast bus
};

struct ChannelConfig {
    uint32_t proto;  // a ChannelKind
    uint32_t ach;    // KIND_BUS: circuit-group address
    uint32_t ip;     // KIND_REMOTE: the server, network byte order
    uint16_t port;   // KIND_REMOTE: its TCP port, host byte order
    uint16_t gpi;    // KIND_REMOTE: number of its GPI, counted from 0

    bool operator==(const ChannelConfig& other) const;
};

// Takes the text of a "CFG" line after its first four characters: "GPO n ... SRCA=source ...".
// Stores the channel's number, 1 to 32, and returns the source's value; null if the line has none
// or is another line.
const char* find_source(const char* text, int& number);

// The meaning of a source's value. KIND_NONE if it is no source.
ChannelConfig parse_source(const char* source);

// The address of a dotted quad, with or without a double quote before it, in network byte order; 0
// if text is null or no dotted quad. Parts may be decimal, octal or hexadecimal; a part above 255
// overflows into the one before it.
uint32_t url2ip(const char* text);
