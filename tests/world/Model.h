// What the daemon owes its peers: a router of its own, written from the protocol. It is told what
// the daemon read, and says which calls must follow, in which order; the daemon made them, or
// differs.
//
// It follows the daemon from one wait to the next, in the log of its calls.
#pragma once

#include <list>
#include <set>

#include "fuzz/BusModel.h"
#include "tests/world/World.h"

class Model {
public:
    // As the daemon begins.
    Model(World& world, bool is_debug)
        : m_World(world),
          m_IsDebug(is_debug),
          m_Tid(static_cast<uint32_t>(world.Clock() / SECOND)) {}

    // What has happened since the start, or the last wait, up to this one; false when the daemon
    // must end instead.
    bool Advance();
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

        bool Follows(const Endpoint& server) const {
            return source.kind == Source::REMOTE && source.server == server;
        }
    };
    struct Sender {
        Endpoint at;
        uint32_t tid;
        Micros since;
    };

    // ---- The log.
    template <class... T>
    const Call& Expect(const T&... asks) {
        return ExpectBytes(words(asks...));
    }
    const Call& ExpectBytes(const std::string& asks);
    bool IsNext(const std::string& kind) const;
    int Opened(const std::string& kind);
    void Close(int fd, bool with_shutdown = false);

    // ---- Start and turns.
    bool Start();
    bool Turn();
    void BeginTurn();
    void Join() {
        Expect("setsockopt", m_Server, "IP_ADD_MEMBERSHIP", quad(GROUP), quad(m_Interface));
    }

    // ---- Connections and control lines.
    void ConnectControl();
    void Connect(Connection& connection, const Endpoint& to);
    bool Take(Connection& connection, Line& line);
    void Reach(const Endpoint& server, int number);
    void Subscribe(const Endpoint& server, int number);
    void Table();
    void Tell(const std::string& line);
    bool Obey(const Line& line);
    bool Configure(int number, const Source& source);
    void Follow(int number);
    void Unfollow(int number);
    void Forward(const Endpoint& server);

    // ---- The bus.
    void Receive();
    bool IsRepeated(const Endpoint& from, uint32_t tid);
    void Carry(const BusPacket& packet);
    void ReportInput(const Channel& channel);
    void Reply(const BusPacket& packet);
    void Report(const std::string& payload);
    bool IsShortOfMemory();

    World& m_World;
    size_t m_Next = 0;  // in the log
    bool m_IsDebug;
    bool m_IsStarted = false;
    Micros m_Clock = 0;  // when the last call ended
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
