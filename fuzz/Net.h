// The network of a fuzz target: a calm world (tests/world) with peers that the target plays.
// Nothing is lost, nothing takes time, and no call fails unless the target makes it.
#pragma once

#include <string>
#include <vector>

#include "tests/support/Clock.h"
#include "tests/world/World.h"

bool is_readable(int fd);
void await_readable(int fd);
void await_bytes(int fd, size_t size);  // until that many can be read at once

// A TCP server at every loopback address.
class TcpPeer : public Listener {
public:
    explicit TcpPeer(uint16_t port);  // 0: any
    ~TcpPeer() override;
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    uint16_t Port() const { return m_Port; }
    void Accept(int client);  // takes the connection of this socket, resets all others
    void AcceptAll();         // takes waiting connections
    size_t Count() const { return m_Streams.size(); }
    void Send(const std::string& bytes);  // to every connection
    std::string Take(size_t wanted = 0);  // what has arrived, at least that many bytes
    void Reset();                         // resets all connections, including waiting ones

    void Accept(const std::shared_ptr<Stream>& stream) override { m_Waiting.push_back(stream); }

private:
    uint16_t m_Port;
    std::vector<std::shared_ptr<Stream>> m_Waiting;
    std::vector<std::shared_ptr<Stream>> m_Streams;
};

// A UDP socket at 127.0.0.1, and in every group.
class UdpPeer {
public:
    explicit UdpPeer(uint16_t port = 0);
    ~UdpPeer();
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    void Send(const std::string& datagram, uint16_t port);
    std::vector<std::string> Take(size_t wanted = 0);  // what has arrived, at least that many

private:
    uint16_t m_Port;
    std::vector<std::string> m_Arrived;
};
