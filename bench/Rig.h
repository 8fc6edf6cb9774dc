// One subject (the daemon or a stand-in for it) on its own device, between a control server, a
// remote server and a peer on the bus, all simulated by the calling thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bench/Path.h"
#include "tests/support/Host.h"
#include "tests/support/Process.h"

// Nanoseconds of a clock that is never set.
int64_t now_ns();

class Rig {
public:
    enum class Kind {
        Daemon,   // detaches, and needs its channels configured
        Baseline  // stays in the foreground
    };

    // Starts the subject and waits until it serves. Ends the program if it does not.
    Rig(const std::vector<std::string>& command, Kind kind);
    // Ends the subject and waits for its end.
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    // Makes a datagram: items for existing channels last, those of others before.
    static std::string Packet(Path path, unsigned int items);

    // One event of the path, from its cause to the first result, in nanoseconds. On return the
    // subject has finished it and sleeps. Ends the program if there is no result within 5 s.
    int64_t Event(Path path);
    // The same for the caller's packet, sent from the socket.
    int64_t BusEvent(Path path, int sock, std::string& packet);

    // For many concurrent events: starts one; takes available results without waiting, and returns
    // how many events they complete.
    void Start(Path path);
    int Finish(Path path);

    // A socket of the peer on the bus with its own port. The caller closes it.
    int OpenPeer(unsigned short port) const;

    pid_t Pid() const { return m_pid; }
    int64_t CpuNs() const;       // processor time so far
    int ResidentKiB() const;     // memory present
    int LowResidentKiB() const;  // of that, below 4 GiB: all that an emulated 32-bit program has
    int Wakeups() const;         // how often it has slept so far

private:
    void Configure();
    void AwaitText(int sock, const std::string& text);
    void SendPacket(int sock, std::string& packet);
    void SendLine(Path path);
    void Await(Path path, int sock);
    void AwaitSecond(Path path);
    void Settle() const;
    bool IsAsleep() const;
    int ResultSocket(Path path) const;

    Host m_device;
    Host m_studio;
    std::unique_ptr<Process> m_process;
    pid_t m_pid = -1;
    bool m_detached;
    int m_control = -1;
    int m_remote = -1;
    int m_peer = -1;     // sends writes and reads, gets acknowledgements
    int m_reports = -1;  // receives what is sent to the group
    sockaddr_in m_group = {};
    uint32_t m_tid = 0;
    std::vector<std::string> m_packets;  // by path
    long m_results = 0;                  // datagrams that complete no event yet
    int m_level = 0;                     // the next line's level
};
