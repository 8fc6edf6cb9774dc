// What --check and --lines print.
#pragma once

#include <string>
#include <vector>

#include "tools/gpio/Wiring.h"

// The pins whose lines can't be used, as errors of the file; empty if there are none. Lines that
// this program uses itself are not counted.
std::vector<std::string> FindProblems(const GpioConfig& config, const std::vector<ChipInfo>& chips);

// Prints the lines of all chips, with who uses them and which pins they are, to standard output: a
// table, or one JSON object per line.
void PrintLines(const GpioConfig& config, const std::vector<ChipInfo>& chips, bool json);
