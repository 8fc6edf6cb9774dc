// A peer on the bus that wants its messages acknowledged: the project's own client, on a stack of
// its own, so that it can wait while the daemon does.
#pragma once

#include <ucontext.h>

#include <memory>
#include <vector>

#include "rudp/RUdpLayer3Client.h"
#include "tests/world/World.h"

class Writer {
public:
    Writer(World& world, uint32_t ip);
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Sends the message, bytes of the payload, unless it is busy with another.
    void Give(const std::string& message, const Endpoint& to);

    // ---- For its calls.
    const uint32_t address;
    int Socket() const { return m_Client->GetSocket(); }
    void Attempted(const std::string& packet);
    void Arrived(const Endpoint& from, const std::string& bytes);
    bool Wait(int fd, Micros limit);

private:
    static void Run();
    void Resume();
    void Pause() { swapcontext(&m_Here, &m_There); }
    void SendOne();
    void Check(bool is_sent) const;

    World& m_World;
    std::unique_ptr<CRUdpLayer3Client> m_Client;
    std::vector<char> m_Stack;
    ucontext_t m_Here;
    ucontext_t m_There;
    std::string m_Message;  // in hand
    Endpoint m_To;
    uint64_t m_Waits = 0;
    std::vector<Micros> m_Attempts;  // when it was sent
    std::string m_Packet;            // as it left last
    Micros m_Answered = -1;          // when an answer came that counts
    bool m_IsRefused = false;
};
