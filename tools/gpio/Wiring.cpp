#include "tools/gpio/Wiring.h"

#include <algorithm>

const char* const CONSUMER = "orvex-gpio";

namespace {

// The places that a pin's setting fits: normally one.
std::vector<Place> Candidates(const GpioConfig& config, const PinConfig& pin,
                              const std::vector<ChipInfo>& chips) {
    std::vector<Place> places;
    const auto chip_config =
        std::find_if(config.chips.begin(), config.chips.end(),
                     [&pin](const ChipConfig& named) { return named.name == pin.chip; });
    for (size_t i = 0; i < chips.size(); ++i) {
        if (chip_config != config.chips.end()) {
            if (chip_config->Matches(chips[i])) {
                places.push_back({i, pin.offset});
            }
            continue;
        }
        for (unsigned int offset = 0; offset < chips[i].lines.size(); ++offset) {
            if (chips[i].lines[offset].name == pin.line_name) {
                places.push_back({i, offset});
            }
        }
    }
    return places;
}

std::string PlaceText(const Place& place, const std::vector<ChipInfo>& chips) {
    return ChipText(chips[place.chip]) + " " + std::to_string(place.offset);
}

// Chips that can't be looked at are a likely reason for a line that is missing.
std::string Unusable(const std::vector<ChipInfo>& chips) {
    std::string text;
    for (const ChipInfo& chip : chips) {
        text += chip.problem.empty() ? "" : "; " + chip.path + ": " + chip.problem;
    }
    return text;
}

Wire FindWire(const GpioConfig& config, const PinConfig& pin, const std::vector<ChipInfo>& chips) {
    const std::vector<Place> places = Candidates(config, pin, chips);
    if (places.empty()) {
        return {{},
                pin.LineText() +
                    (pin.chip.empty() ? ": no chip has a line of this name"
                                      : ": the chip is not there") +
                    Unusable(chips),
                false};
    }
    if (places.size() > 1) {
        return {{},
                pin.LineText() + " is there twice: " + PlaceText(places[0], chips) + " and " +
                    PlaceText(places[1], chips),
                true};
    }
    const ChipInfo& chip = chips[places[0].chip];
    if (!chip.problem.empty()) {
        return {{}, pin.LineText() + ": " + chip.path + ": " + chip.problem, false};
    }
    if (pin.offset >= chip.lines.size()) {
        return {{},
                pin.LineText() + ": " + ChipText(chip) + " has lines 0 to " +
                    std::to_string(chip.lines.size() - 1),
                true};
    }
    return {places[0], "", false};
}

}  // namespace

std::vector<Wire> FindWires(const GpioConfig& config, const std::vector<ChipInfo>& chips) {
    std::vector<Wire> wires;
    for (const PinConfig& pin : config.pins) {
        Wire wire = FindWire(config, pin, chips);
        for (size_t i = 0; wire.place && i < wires.size(); ++i) {
            if (wires[i].place == wire.place) {
                wire = {{}, pin.LineText() + " is " + config.pins[i].PinText() + " already", true};
            }
        }
        wires.push_back(wire);
    }
    return wires;
}

void RefuseContradictions(const GpioConfig& config, const std::vector<ChipInfo>& chips) {
    ConfigErrors errors(config.file);
    const std::vector<Wire> wires = FindWires(config, chips);
    for (size_t i = 0; i < wires.size(); ++i) {
        if (wires[i].is_contradiction) {
            errors.Add(config.pins[i].line, wires[i].problem);
        }
    }
    errors.ThrowIfAny();
}

std::string ChipText(const ChipInfo& chip) {
    return chip.label.empty() ? chip.name : chip.name + " (" + chip.label + ")";
}
