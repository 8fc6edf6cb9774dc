// Which line of which chip a pin is connected to.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/gpio/Config.h"

struct Place {
    size_t chip = 0;  // of the list of chips
    unsigned int offset = 0;

    bool operator==(const Place& other) const {
        return chip == other.chip && offset == other.offset;
    }
};

// Where a pin's line is, or why it is nowhere.
struct Wire {
    std::optional<Place> place;
    std::string problem;
    bool is_contradiction = false;  // will not go away when a chip is connected: the file is wrong
};

// One for each pin of the configuration.
std::vector<Wire> FindWires(const GpioConfig& config, const std::vector<ChipInfo>& chips);

// Throws a ConfigError with all contradictions, if there are any.
void RefuseContradictions(const GpioConfig& config, const std::vector<ChipInfo>& chips);

// "gpiochip0 (pinctrl-bcm2835)"
std::string ChipText(const ChipInfo& chip);

// How the program names itself as the user of its lines.
extern const char* const CONSUMER;
