#include "tools/gpio/Listing.h"

#include <linux/gpio.h>

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/base/LineBuffer.h"

namespace {

using Row = std::array<std::string, 7>;

const Row HEAD = {"CHIP", "LABEL", "LINE", "NAME", "DIRECTION", "USED BY", "PIN"};

bool IsOthers(const LineInfo& line) {
    return line.IsUsed() && line.consumer != CONSUMER;
}

std::string UserOf(const LineInfo& line) {
    return !line.IsUsed() ? "" : line.consumer.empty() ? "the kernel" : line.consumer;
}

const char* DirectionOf(const LineInfo& line) {
    return (line.flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0 ? "output" : "input";
}

// The pin at the place; null if there is none.
const PinConfig* PinAt(const Place& place, const GpioConfig& config,
                       const std::vector<Wire>& wires) {
    for (size_t i = 0; i < wires.size(); ++i) {
        if (wires[i].place == place) {
            return &config.pins[i];
        }
    }
    return nullptr;
}

void PrintTable(const std::vector<Row>& rows) {
    std::array<size_t, std::tuple_size<Row>::value> widths = {};
    for (const Row& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const Row& row : rows) {
        std::string text;
        for (size_t i = 0; i < row.size(); ++i) {
            text += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text.erase(text.find_last_not_of(' ') + 1);
        printf("%s\n", text.c_str());
    }
}

}  // namespace

std::vector<std::string> FindProblems(const GpioConfig& config,
                                      const std::vector<ChipInfo>& chips) {
    std::vector<std::string> problems;
    const std::vector<Wire> wires = FindWires(config, chips);
    for (size_t i = 0; i < wires.size(); ++i) {
        const PinConfig& pin = config.pins[i];
        std::string problem = wires[i].problem;
        if (const std::optional<Place>& place = wires[i].place) {
            const LineInfo& line = chips[place->chip].lines[place->offset];
            problem = IsOthers(line) ? pin.LineText() + " is used by " + UserOf(line) : "";
        }
        if (!problem.empty()) {
            problems.push_back(config.file + ":" + std::to_string(pin.line) + ": " + problem);
        }
    }
    return problems;
}

void PrintLines(const GpioConfig& config, const std::vector<ChipInfo>& chips, bool json) {
    const std::vector<Wire> wires = FindWires(config, chips);
    std::vector<Row> rows = {HEAD};
    for (size_t i = 0; i < chips.size(); ++i) {
        const ChipInfo& chip = chips[i];
        for (unsigned int offset = 0; offset < chip.lines.size(); ++offset) {
            const LineInfo& line = chip.lines[offset];
            const PinConfig* const pin = PinAt({i, offset}, config, wires);
            rows.push_back({chip.name, Printable(chip.label), std::to_string(offset),
                            Printable(line.name), DirectionOf(line), Printable(UserOf(line)),
                            pin != nullptr ? pin->PinText() : ""});
            if (json) {
                nlohmann::ordered_json object = {{"chip", chip.name},
                                                 {"label", chip.label},
                                                 {"line", offset},
                                                 {"name", line.name},
                                                 {"direction", DirectionOf(line)},
                                                 {"used", line.IsUsed()},
                                                 {"consumer", line.consumer},
                                                 {"pin", rows.back()[6]}};
                using Json = nlohmann::ordered_json;
                printf("%s\n", object.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
            }
        }
    }
    if (!json) {
        PrintTable(rows);
    }
}
