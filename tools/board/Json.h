// The board's answers as JSON.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tools/board/History.h"
#include "tools/bus/PinWrite.h"

class Names;
struct ChannelInfo;
struct PinState;

// What viewers are sent about a pin besides its state.
struct PinNotes {
    uint64_t changes = 0;
    std::optional<Level> written;  // by the last write
    bool lost = false;             // its device no longer answers: unknown
    bool by_control = false;       // the control server sends its state
};

struct Device {
    int64_t first = 0;
    int64_t heard = 0;
    bool missing = false;
    uint64_t messages = 0;
};

using OrderedJson = nlohmann::ordered_json;

// On one line, in UTF-8.
std::string Dump(const OrderedJson& json);

// by: who told the pin.
OrderedJson PinJson(uint32_t tag, const PinState& state, const PinNotes& notes,
                    const std::string& by, const Names& names);
OrderedJson DeviceJson(const std::string& host, const Device& device,
                       const std::vector<std::string>& addresses);
OrderedJson ChannelJson(int number, const ChannelInfo& channel);
OrderedJson EventJson(const Event& event, const Names& names);
OrderedJson GapJson(const Gap& gap);

// "told" and others.
const char* KindText(EventKind kind);
