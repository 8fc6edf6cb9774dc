// Who sends a request or follows the events.
#pragma once

#include <string>

#include "tools/board/Rights.h"

// Lives as long as somebody has it. When the users have been read again, the rights may have
// changed.
struct Visit {
    std::string name;  // of the user or token; empty for others
    Rights rights;
    bool ended = false;  // there is no such user or token any more
};
