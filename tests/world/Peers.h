// The servers of control lines, and what they do on their own.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tests/world/World.h"

const Endpoint REMOTES[] = {
    {0x0A000009, 93}, {0x0A000009, 94}, {0x0A00000A, 93}, {0x0A00000B, 40000}};

// A server of control lines, with one connection.
class Server : public Listener {
public:
    Server(World& world, Endpoint at);

    void Accept(const std::shared_ptr<Stream>& stream) override;
    void Hear(Stream& stream) override;

protected:
    // A line has arrived.
    virtual void Told(const std::string& line) = 0;

    // ---- Lines; nothing without a connection. The bytes arrive in order, in pieces of any size.
    void Write(Line line);
    void WriteState(Line::Kind kind, int number, const std::string& state);
    void WriteMalformed();

    // ---- The end of the connection.
    // The daemon learns nothing: keep-alive detects it after two hours.
    void Vanish();
    // After what was written or at once with an error; attempts to connect are answered differently
    // for a time.
    void GoDown();

    std::string AnyState();
    std::string Spell(uint32_t number);  // decimal, hexadecimal or octal

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
    void TellInterface();
    uint32_t AnyAddress();  // on the bus, most often one that a channel has
    uint32_t AnyInterface() { return m_Random.Of({0x0A000001U, 0x0A000002U, 0x0A010001U}); }

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
