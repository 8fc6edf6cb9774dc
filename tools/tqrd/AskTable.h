// Queries a control server for everything about its channels.
#pragma once

#include <chrono>
#include <string>

#include "net/SvcAddress.h"
#include "tools/tqrd/ChannelTable.h"

struct TableAnswer {
    ChannelTable table;
    bool has_answered = false;  // the server has sent something
    std::string problem;        // why the connection could not be made or ended; else empty
    int error = 0;              // TqrdClient::Error()
};

// Connects and requests settings and channels, then subscribes to the inputs of the channels on the
// bus, on its own connection: other clients' subscriptions are not affected. The protocol does not
// mark the end of an answer, so this returns when all these inputs have come and the server has
// been silent for 200 ms, or at the limit. With a time to listen it returns after that: outputs are
// sent when they change.
TableAnswer AskTable(const CSvcAddress& server, std::chrono::milliseconds limit,
                     std::chrono::milliseconds listen = {});
