// Completions for a word of the command line, for shells.
#pragma once

#include <string>
#include <vector>

#include "tools/bus/Names.h"

// Words that begin with prefix and are pins or addresses, with '=' and levels if wanted: names, and
// the pins of an address that prefix contains completely.
std::vector<std::string> CompletePins(const std::string& prefix, bool levels, const Names& names);
