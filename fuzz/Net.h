// The network of a fuzz target: loopback in a namespace of its own, so that nothing leaves the
// process, and peers whose connections end without leaving their ports occupied.
//
// Linking this in makes the target enter the namespace before anything else; where that is not
// possible it ends. Nothing here waits longer than five seconds: then it is a finding.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

bool is_readable(int fd);
void await_readable(int fd);
void await_bytes(int fd, size_t size);  // that many can be read at once
uint16_t port_of(int sock);

// A TCP server at every loopback address.
class TcpPeer {
public:
    explicit TcpPeer(uint16_t port);  // 0: the system chooses
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    uint16_t Port() const { return port_of(m_Listener); }
    void Accept(int client);  // takes the connection of this socket, resets all others
    void AcceptAll();         // takes what waits
    size_t Count() const { return m_Socks.size(); }
    void Send(const std::string& bytes);  // to every connection
    std::string Take(size_t wanted = 0);  // what has come, that many bytes at least
    void Reset();                         // breaks all connections, waiting ones too

private:
    int m_Listener;
    std::vector<int> m_Socks;
};

// A UDP socket at 127.0.0.1.
class UdpPeer {
public:
    explicit UdpPeer(uint16_t port = 0);
    ~UdpPeer();
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    void Join(uint32_t group);  // network byte order
    void Send(const std::string& datagram, uint16_t port);
    std::vector<std::string> Take(size_t wanted = 0);  // what has come, that many at least

private:
    int m_Sock;
};
