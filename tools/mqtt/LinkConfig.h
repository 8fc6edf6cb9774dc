// Links as they are written in a configuration file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/bus/PinWrite.h"

// A pin at a site. A name is known only to its own site: others have no number for it.
struct SitePin {
    std::string site;
    std::string pin;  // "1:2:in1", or a name
    std::optional<uint32_t> tag;

    std::string Text() const { return site + ":" + pin; }
    bool operator==(const SitePin& other) const { return Text() == other.Text(); }
};

// An input, or an output, at one site that sets an output at another.
struct LinkConfig {
    SitePin from;
    SitePin to;
    bool invert = false;
    unsigned int pulse_ms = 0;                  // 0: the output follows
    std::optional<Level> on_loss{Level::High};  // none: it keeps what it was
    double loss_after = 2;                      // seconds
    int line = 0;

    std::string Text() const { return from.Text() + " -> " + to.Text(); }
};

// Why a link conflicts with the others; none if it does not. Two links must not set one output, and
// no pin may set itself, through however many links.
std::optional<std::string> RefusalOf(const LinkConfig& link, const std::vector<LinkConfig>& others);
