// The board's answers as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/board/History.h"

class Board;
class Names;
struct ChannelInfo;
struct Device;
struct PinState;

using OrderedJson = nlohmann::ordered_json;

// On one line, in UTF-8.
std::string Dump(const OrderedJson& json);

OrderedJson PinJson(const Board& board, uint32_t tag, const PinState& state);
OrderedJson DeviceJson(const std::string& host, const Device& device,
                       const std::vector<std::string>& addresses);
OrderedJson ChannelJson(int number, const ChannelInfo& channel);
OrderedJson BoardJson(const Board& board, const History& history);
OrderedJson EventJson(const Event& event, const Names& names);
OrderedJson GapJson(const Gap& gap);

// "told" and others.
const char* KindText(EventKind kind);
