// Asks the daemon on the bus.
#pragma once

#include "tools/bus/BusLink.h"
#include "tools/doctor/Facts.h"

// Reads the pins of all channels that TQRD has told, as a peer would. Joins the group meanwhile.
BusAnswer AskBus(const BusSettings& settings, const Facts& facts);
