// A peer on the bus that sends reliable messages: the project's own client, on a stack of its own,
// so that it can block while the daemon runs.
#pragma once

#include <ucontext.h>

#include <memory>
#include <string>
#include <vector>

#include "rudp/RUdpLayer3Client.h"
#include "tests/world/World.h"

class Writer : public Peer {
public:
    Writer(World& world, uint32_t ip);
    ~Writer() override;
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Sends the message, given as the bytes of its payload, unless another is under way. Ends the
    // run if the attempts or their result are not as the protocol says.
    void Give(const std::string& message, const Endpoint& to);

    // ---- For its system calls.
    void Sends(const std::string& packet) override;
    void Arrived(const Endpoint& from, const std::string& bytes) override;
    bool Wait(int fd, Micros limit) override;

private:
    static void Run();
    void Resume();
    void Pause() { swapcontext(&m_Here, &m_There); }
    void SendOne();
    bool IsAnswer(const Endpoint& from, const std::string& bytes) const;
    void Check(bool is_sent) const;
    void CheckTimes() const;
    void Count(bool is_sent) const;

    static inline Writer* s_Starting = nullptr;  // for Run(), which takes no argument
    World& m_World;
    std::unique_ptr<CRUdpLayer3Client> m_Client;
    std::vector<char> m_Stack;
    ucontext_t m_Here;
    ucontext_t m_There;
    std::string m_Message;  // being sent
    Endpoint m_To;
    uint64_t m_Waits = 0;
    std::vector<Micros> m_Attempts;  // the time of each
    std::string m_Packet;            // as last sent
    Micros m_Answered = -1;          // when the first valid answer arrived
    bool m_IsRefused = false;
};
