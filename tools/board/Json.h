// The board's answers as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/board/History.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinFollower.h"
#include "tools/bus/PinWrite.h"

class Names;
struct ChannelInfo;

// What viewers are sent about a pin besides its state.
struct PinNotes {
    uint64_t changes = 0;
    std::optional<Level> written;  // by the last write
};

// by: who told the pin.
Json PinJson(uint32_t tag, const PinState& state, const PinNotes& notes, const std::string& by,
             const Names& names);
Json DeviceJson(const std::string& host, const PinFollower::Device& device,
                const std::vector<uint32_t>& addresses);
Json ChannelJson(int number, const ChannelInfo& channel);
Json EventJson(const Event& event, const Names& names);
Json GapJson(const Gap& gap);

// "told" and others.
const char* KindText(EventKind kind);
