// The server's end of a TCP connection on loopback, simulated byte by byte.
#pragma once

#include <string>

// Listens on one address. Waits are limited to five seconds; the results show what did not arrive
// in that time.
class LoopbackServer {
public:
    // Port 0: the system chooses.
    explicit LoopbackServer(unsigned short port = 0, const char* ip = "127.0.0.1");
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    unsigned short Port() const { return m_port; }
    bool Accept();         // takes the next connection in place of the current one
    bool HasConnection();  // a connection waits to be accepted
    void Send(const std::string& bytes);
    std::string Receive(size_t size);  // the next size bytes, fewer if they don't arrive
    bool IsQuiet();                    // nothing waits to be received
    bool SeesEnd();                    // the other end closed
    void Drop();                       // closes the current connection

private:
    int m_listener;
    int m_sock = -1;
    unsigned short m_port;
};
