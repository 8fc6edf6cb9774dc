// Prints what switchers send.
#pragma once

#include <vector>

#include "tools/base/Signals.h"
#include "tools/tsl/Config.h"

// Listens there and prints each display that arrives, and each malformed packet with its bytes,
// until SIGINT or SIGTERM: in words, or as one JSON object per line. Throws std::system_error.
void DumpDisplays(const std::vector<TslListen>& listen, bool json, Signals& signals);
