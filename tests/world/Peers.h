// The peers of the daemon in its world, and what they do by themselves.
#pragma once

#include "tests/world/World.h"

const Endpoint REMOTES[] = {
    {0x0A000009, 93}, {0x0A000009, 94}, {0x0A00000A, 93}, {0x0A00000B, 40000}};

// A server of control lines, with one connection.
class Server : public Listener {
public:
    Server(World& world, Endpoint at) : m_World(world), m_Random(world.random) {
        world.servers[at] = this;
    }
    void Accept(const std::shared_ptr<Stream>& stream) override;
    void Hear(Stream& stream) override;

protected:
    virtual void Told(const std::string& line) = 0;

    void Write(Line line);
    void WriteState(Line::Kind kind, int number, const std::string& state);
    void WriteNonsense();
    // Without a word: keep-alive finds that out after two hours.
    void Vanish();
    // Breaks the connection and answers otherwise for a time.
    void GoDown();
    std::string AnyState();
    std::string Spell(uint32_t number);

    World& m_World;
    Random& m_Random;

private:
    std::shared_ptr<Stream> Leave();

    std::shared_ptr<Stream> m_Stream;
};

class RemoteServer : public Server {
public:
    using Server::Server;
    void Act();

protected:
    void Told(const std::string& line) override;
};

// The device's control server.
class Tqrd : public Server {
public:
    explicit Tqrd(World& world);
    void Act();
    // An address on the bus that may be known.
    uint32_t AnyAddress();
    void TellInterface();
    uint32_t AnyInterface() { return m_Random.Of({0x0A000001, 0x0A000002, 0x0A010001}); }

protected:
    void Told(const std::string& line) override;

private:
    struct Channel {
        Source source{};
        std::string input = "HHHHH";
        std::string output = "HHHHH";
    };
    Source AnySource();
    Line Configuration(int number);
    std::string Spelled(const Source& source);
    void Restart();

    std::map<int, Channel> m_Channels;
};

// What peers put on the bus.
class Bus {
public:
    Bus(World& world, Tqrd& tqrd) : m_World(world), m_Random(world.random), m_Tqrd(tqrd) {}
    void Act();
    // More senders at once than are remembered without more memory.
    void Crowd();
    // A message as its bytes, with no tag twice.
    std::string Message();

private:
    struct Sender {
        uint32_t tid = 0;
        std::string last{};
    };
    std::string Item(uint32_t tag);
    std::string Packet(Sender& sender);

    World& m_World;
    Random& m_Random;
    Tqrd& m_Tqrd;
    std::map<Endpoint, Sender> m_Senders;
};
