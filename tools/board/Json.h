// The board's answers as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/board/Event.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinFollower.h"

class Names;
struct ChannelInfo;

Json DeviceJson(const std::string& host, const PinFollower::Device& device);
Json ChannelJson(int number, const ChannelInfo& channel);
Json EventJson(const Event& event, const Names& names);
Json GapJson(const Gap& gap);

// "told" and others.
const char* KindText(EventKind kind);
