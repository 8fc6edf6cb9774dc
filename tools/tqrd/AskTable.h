// Asks a control server for all that it tells about channels.
#pragma once

#include <chrono>
#include <string>

#include "net/SvcAddress.h"
#include "tools/tqrd/ChannelTable.h"

struct TableAnswer {
    ChannelTable table;
    bool has_answered = false;  // the server has told something
    std::string problem;        // why the connection could not be made or ended; else empty
    int error = 0;              // TqrdClient::Error()
};

// Connects and asks for settings and channels, then subscribes to the inputs of the channels on the
// bus, on a connection of its own: other clients' subscriptions are not touched. The protocol has
// no end of an answer, so this returns when all these inputs were told and the server has been
// silent for 200 ms, after the limit at the latest. With a time to listen it returns after that:
// outputs are told when they change.
TableAnswer AskTable(const CSvcAddress& server, std::chrono::milliseconds limit,
                     std::chrono::milliseconds listen = {});
