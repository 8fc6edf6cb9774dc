// Completions for a word of the command line, for shells.
#pragma once

#include <string>
#include <vector>

#include "tools/bus/Names.h"

// Words that begin with prefix: names, and the pins of an address that prefix contains completely.
// kind is "pin", "level", which adds '=' and levels, or "address".
std::vector<std::string> CompletePins(const std::string& prefix, const std::string& kind,
                                      const Names& names);
