// What the daemon owes its peers: a second router, written from the protocol. From what the daemon
// has read it derives which calls must follow, and in which order. Any other call is a difference,
// which ends the run.
//
// It follows the daemon from one wait to the next, in the log of its calls.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fuzz/BusModel.h"
#include "tests/support/Senders.h"
#include "tests/world/Ledger.h"

class Model : private Ledger {
public:
    // The state of a daemon that is about to start.
    Model(World& world, bool is_debug);

    // Checks the calls since the start, or since the last wait, up to this one. False when the
    // daemon must end instead of waiting.
    bool Advance();
    // The daemon has ended, and closed its sockets in the reverse order of construction.
    void End();

private:
    struct Channel {
        Source source{};
        std::string input = std::string(5, '\0');
        std::string output = std::string(5, '\0');

        bool Follows(const Endpoint& server) const {
            return source.kind == Source::REMOTE && source.server == server;
        }
    };

    // ---- Start and turns. False when the daemon must end.
    bool Start();
    bool Turn();
    void BeginTurn();
    bool IsSweep() const;
    void Join();

    // ---- Connections and control lines.
    void Reach(const Endpoint& server, int number);
    void Subscribe(const Endpoint& server, int number);
    void Table();
    void Tell(const std::string& line);
    bool Obey(const Line& line);  // whether it changed a channel
    bool Configure(int number, const Source& source);
    void Follow(int number);
    void Unfollow(int number);
    void Forward(const Endpoint& server);

    // ---- The bus.
    void Receive();
    bool IsRepeated(const Endpoint& from, uint32_t tid);
    bool IsShortOfMemory();
    void Carry(const BusPacket& packet);
    void ReportInput(const Channel& channel);
    void Reply(const BusPacket& packet);
    void Report(const std::string& payload);

    bool m_IsDebug;
    bool m_IsStarted = false;
    Channel m_Channels[CHANNELS + 1];
    uint32_t m_Interface = 0;
    bool m_IsInterfaceNew = false;
    Connection m_Control;
    std::map<Endpoint, Connection> m_Remotes;
    int m_Server = -1;  // the socket that receives from the bus
    int m_Client = -1;  // the one that sends to it
    uint32_t m_Tid;
    Senders m_Senders{10000, 0};
    Micros m_Swept = 0;               // on the clock
    std::vector<Endpoint> m_Watched;  // the servers that this turn listens to, in order
};
