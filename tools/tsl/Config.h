// The configuration file of orvex-tsl, one setting per line:
//
//     listen   udp 0.0.0.0:8900 v3.1
//     display  2  tally1 -> 1:2:out1  on-loss H 5
//     display  screen 1 index 4  red-or-green -> 1:2:out2
//     send     udp 10.0.0.30:8900 v5 screen 1 every 10
//     pin      1:2:in1 -> index 7 right red label "Door"
//
// orvex-tsl.conf(5) describes them all.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/ConfigFile.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinWrite.h"
#include "tools/server/Address.h"
#include "tools/tsl/Display.h"

enum class Transport : uint8_t { Udp, Tcp };

// Where packets are sent to, and of which version.
struct TslPlace {
    Transport transport = Transport::Udp;
    Endpoint endpoint;
    TslVersion version = TslVersion::V31;

    // Of any version.
    bool IsSameSocket(const TslPlace& other) const {
        return transport == other.transport && endpoint == other.endpoint;
    }
    bool operator==(const TslPlace& other) const {
        return IsSameSocket(other) && version == other.version;
    }
    std::string Text() const;  // "udp 0.0.0.0:8900 v3.1"
};

// Where switchers send to.
struct TslListen : TslPlace {
    std::vector<Network> from;  // empty: everybody may send

    bool operator==(const TslListen& other) const;
};

// A display of a switcher that drives an output.
struct TslRule {
    Display place;                // version, screen and index
    std::vector<uint8_t> lit_by;  // the output is low if all bits of one of these are set
    uint32_t tag = 0;             // the output
    std::optional<Level> on_loss;
    double loss_after = 0;  // seconds
    int line = 0;           // of the file

    bool IsLit(uint8_t tallies) const;
    bool IsSame(const TslRule& other) const;
};

// Where a multiviewer listens.
struct TslSend : TslPlace {
    uint16_t screen = 0;
    double every = 10;  // seconds

    bool operator==(const TslSend& other) const;
};

// A pin that shows as a tally of a display while it is low.
struct TslPin {
    uint32_t tag = 0;
    uint16_t index = 0;
    uint8_t tallies_31 = 0;
    uint8_t tallies_5 = 0;
    std::string label;
    int line = 0;
};

struct TslConfig {
    std::string file;
    std::string interface;
    Names names;
    std::vector<TslListen> listen;
    std::vector<TslRule> rules;
    std::vector<TslSend> send;
    std::vector<TslPin> pins;

    // Reads and checks a file. Throws ConfigError with all errors, or NamesError.
    static TslConfig Read(const std::string& file);
};

// "udp 0.0.0.0:8900 v3.1", with "from NETWORK" behind. Throws std::invalid_argument.
TslListen ParseTslListen(const std::string& text);
