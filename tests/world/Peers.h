// The peers of the daemon in its world, and what they do by themselves.
#pragma once

#include <set>

#include "tests/world/World.h"

const uint32_t DEVICE_ADDRESSES[] = {0x0A000001, 0x0A000002, 0x0A010001};

// A server of control lines, with one connection.
class Server : public Listener {
public:
    Server(World& world, Endpoint at);
    void Accept(const std::shared_ptr<Stream>& stream) override;
    void Hear(Stream& stream) override;
    bool IsConnected() const { return m_Stream != nullptr && !m_Stream->is_closed; }

protected:
    virtual void Told(const std::string& line) = 0;

    void Write(Line line);
    void WriteState(Line::Kind kind, int number, const std::string& state);
    void WriteNonsense();
    // Ends the connection: with what was written (0), or at once with an error.
    void Break(int error);
    void Vanish();
    // Breaks it and answers otherwise for a time.
    void GoDown();
    std::string AnyState();
    std::string Spell(int number);

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

protected:
    void Told(const std::string& line) override;

private:
    struct Channel {
        Source source{};
        std::string input = "HHHHH";
        std::string output = "HHHHH";
        bool is_followed = false;
    };
    Source AnySource();
    Line Configuration(int number);
    std::string Spelled(const Source& source);
    void Restart();

    Channel m_Channels[CHANNELS + 1];
};

// What peers put on the bus.
class Bus {
public:
    Bus(World& world, Tqrd& tqrd) : m_World(world), m_Random(world.random), m_Tqrd(tqrd) {}
    void Act();
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
