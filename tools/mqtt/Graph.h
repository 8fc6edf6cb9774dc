// What links must not do together.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct LinkConfig;

// Why a link can't stand beside the others; none when it can. Two links must not set one output,
// and no pin may set itself, however many links it takes.
std::optional<std::string> RefusalOf(const LinkConfig& link, const std::vector<LinkConfig>& others);
