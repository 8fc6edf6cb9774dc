// Compares the daemon's calls, one after the other, with those that are due. The first that differs
// ends the run.
#pragma once

#include <memory>
#include <string>

#include "tests/world/World.h"

class Ledger {
protected:
    // A connection to a server of control lines.
    struct Connection {
        int fd = -1;  // -1: there is none
        std::string pending{};
        std::shared_ptr<Stream> stream{};
    };

    explicit Ledger(World& world) : m_World(world) {}

    // Takes the next call from the log, which must ask this: the name and the arguments, or the
    // bytes as they stand.
    template <class... T>
    const Call& Expect(const T&... asks) {
        return ExpectBytes(words(asks...));
    }
    const Call& ExpectBytes(const std::string& asks);
    bool IsNext(const std::string& kind) const;  // whether a call of this name follows

    int Opened(const std::string& kind) { return static_cast<int>(Expect("socket", kind).result); }
    void Close(int fd, bool with_shutdown = false);
    // Whether it was tried: not without memory for its lines.
    bool Connect(Connection& connection, const Endpoint& to);
    // Takes the next line, after one check for more bytes. Lines still unhandled when the
    // connection ends are lost.
    bool Take(Connection& connection, Line& line);

    World& m_World;
    size_t m_Next = 0;   // in the log
    Micros m_Clock = 0;  // when the last call returned
};
