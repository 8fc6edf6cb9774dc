// Senders of datagrams on the bus, and another device that receives from it.
#pragma once

#include <map>
#include <string>

#include "tests/world/World.h"

class Tqrd;

const uint32_t OTHER_DEVICE = 0x0A000028;

class Bus {
public:
    // The addresses of most pins are those of the server's channels.
    Bus(World& world, Tqrd& tqrd) : m_World(world), m_Random(world.random), m_Tqrd(tqrd) {}

    void Act();             // sends a packet, or one a second time
    void Crowd();           // more senders at once than the daemon remembers without allocating
    std::string Message();  // the bytes of a message in which each tag occurs once

private:
    struct Sender {
        uint32_t tid = 0;
        std::string last{};
    };
    std::string Item(uint32_t tag);
    std::string Packet(Sender& sender);
    std::string Damaged(const std::string& packet);

    World& m_World;
    Random& m_Random;
    Tqrd& m_Tqrd;
    std::map<Endpoint, Sender> m_Senders;
};

// A device that refuses most reliable messages. It acknowledges others, is silent, or answers what
// is no answer.
class OtherDevice {
public:
    explicit OtherDevice(World& world);

private:
    void Answer(const Endpoint& from, const std::string& packet);

    World& m_World;
};
