// Queries a server of control lines: for everything about its channels, or for inputs.
#pragma once

#include <chrono>
#include <map>
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

struct InputsAnswer {
    std::map<int, std::string> states;  // by number, as the server wrote them
    bool has_answered = false;          // the server has sent something
    std::string problem;                // as above
    int error = 0;
};

// Subscribes to the inputs first to last, as the daemon does with those of a remote GPIO server.
// Returns when the states of all have come, or at the limit; with a time to listen after that, with
// the last states. A server that has sent nothing after half the limit is asked for its settings
// and channels too: one that answers this is well, and has none of these inputs.
InputsAnswer AskInputs(const CSvcAddress& server, int first, int last,
                       std::chrono::milliseconds limit, std::chrono::milliseconds listen = {});
