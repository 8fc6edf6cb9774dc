// What may stand for a word of the command line, for shells.
#pragma once

#include <string>
#include <vector>

#include "tools/bus/Names.h"

// Words that begin with prefix and name pins or addresses, with their '=' and levels when those are
// wanted: names, and the pins of an address that prefix has whole.
std::vector<std::string> CompletePins(const std::string& prefix, bool levels, const Names& names);
