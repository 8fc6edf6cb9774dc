// What the daemon owes its peers: a router of its own, written from the protocol. It is told what
// the daemon read, and says which calls must follow, in which order; the daemon made them, or
// differs.
//
// It follows the daemon from one wait to the next, in the log of its calls.
#pragma once

#include <list>
#include <set>

#include "tests/world/World.h"

struct BusPacket;

class Model {
public:
    // As the daemon begins.
    explicit Model(World& world)
        : m_World(world), m_Tid(static_cast<uint32_t>(world.Clock() / SECOND)) {}

    // Everything up to the first wait; false when the daemon must end with status 1.
    bool Start(bool is_debug);
    // From one wait to the next. False when the daemon must end with status 2.
    bool Turn();
    // The daemon is gone, and has closed what it had.
    void End();

private:
    // A connection to a server of control lines.
    struct Connection {
        int fd = -1;
        std::string pending{};
        std::shared_ptr<Stream> stream{};
    };
    struct Channel {
        Source source{};
        std::string input = std::string(5, '\0');
        std::string output = std::string(5, '\0');
    };
    struct Sender {
        Endpoint at;
        uint32_t tid;
        Micros since;
    };

    const Call& Expect(const std::string& kind, int fd, long number = 0,
                       const std::string& data = "", Endpoint peer = {});
    bool IsNext(const std::string& kind) const;
    void Close(int fd, bool with_shutdown = false);
    void Option(int fd, int level, int option, const std::string& data, Endpoint about);

    void BeginTurn();
    void Reconnect(const Endpoint& server);
    void Subscribe(const Connection& remote, int gpi);
    void Connect(Connection& connection, Endpoint to);
    bool Take(Connection& connection, Line& line);
    void Table();

    void Tell(const std::string& line);
    bool Obey(const Line& line);
    bool Configure(int number, const Source& source);
    void Follow(int number);
    void Unfollow(int number);
    void Forward(const Endpoint& server);

    void Receive();
    bool IsRepeated(const Endpoint& from, uint32_t tid);
    void Carry(const BusPacket& packet);
    void Reply(const BusPacket& packet);
    void Report(const std::string& payload);
    bool IsShortOfMemory();

    World& m_World;
    size_t m_Next = 0;  // in the log
    bool m_IsDebug = false;
    Channel m_Channels[CHANNELS + 1];
    uint32_t m_Interface = 0;
    bool m_IsInterfaceNew = false;
    Connection m_Control;
    std::map<Endpoint, Connection> m_Remotes;
    int m_Server = -1;  // the socket that receives from the bus
    int m_Client = -1;  // the one that sends to it
    uint32_t m_Tid;
    std::list<Sender> m_Senders;      // oldest first
    size_t m_Room = 0;                // for so many senders there is memory
    Micros m_Swept = 0;               // on the clock
    std::vector<Endpoint> m_Watched;  // the servers that this turn listens to, in order
};
