// Conflicts between links.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct LinkConfig;

// Why a link conflicts with the others; none if it does not. Two links must not set one output, and
// no pin may set itself, through however many links.
std::optional<std::string> RefusalOf(const LinkConfig& link, const std::vector<LinkConfig>& others);
