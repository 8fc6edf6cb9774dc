// Links as they are written in a configuration file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/bus/Names.h"
#include "tools/mqtt/Expression.h"

// Pins at any sites that set an output.
struct LinkConfig {
    Expression from;
    SitePin to;
    bool invert = false;
    unsigned int pulse_ms = 0;                  // 0: the output follows
    std::optional<Level> on_loss{Level::High};  // none: it keeps what it was
    double loss_after = 2;                      // seconds
    double delay = 0;         // seconds that a new level must last before it counts
    double hold = 0;          // seconds for which the output stays low at least
    double min_interval = 0;  // seconds between two changes of the output
    int line = 0;

    std::string Text() const { return from.Text() + " -> " + to.Text(); }
};

const double SHORTEST_LOSS = 2;  // seconds; a heartbeat comes every half second

// Reads the words of a line, "link SOURCE -> SITE:PIN OPTION...", in the file of that site, which
// has these names. Throws std::invalid_argument with the reason.
LinkConfig ParseLink(const std::vector<std::string>& words, const std::string& site,
                     const Names& names);

// Why a link conflicts with the others; none if it does not. Two links must not set one output, and
// no pin may set itself, through however many links.
std::optional<std::string> RefusalOf(const LinkConfig& link, const std::vector<LinkConfig>& others);
