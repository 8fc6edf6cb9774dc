// A connection to a TQR server: whole text lines over TCP.
#pragma once

#include "tqr/tqrlimits.h"

// Connects to one server, sends lines and cuts what arrives into lines. Owns its socket and its
// line buffer. Never waits for data longer than the caller says, so one select() loop can serve
// many; but open() waits as long as the system takes to complete or refuse the connection, unless
// that is limited.
//
// Failures are told on standard error, each message beginning with "tqrcli". A process that uses it
// ignores SIGPIPE. For one thread; not copied.
class CTQRClient {
public:
    // Neither connected nor holding a buffer.
    CTQRClient() = default;
    ~CTQRClient();
    CTQRClient(const CTQRClient&) = delete;
    CTQRClient& operator=(const CTQRClient&) = delete;

    // For connections opened from now on. Without this the system's own limits hold.
    void set_limits(const CTQRLimits& limits) { m_limits = limits; }

    // Drops any earlier connection with what it had buffered, then connects to ip (network byte
    // order; 32 bits) and port (host byte order; its 16 bits count as unsigned). size bounds a
    // line: up to size - 1 characters and the line end can be received. Returns the socket; -1 when
    // it can't be created or connected; -2 when memory is short.
    int open(unsigned long ip, short port, int size);

    // The same with a dotted quad. Names are not looked up: they fail as 255.255.255.255 does.
    int open(const char* host, short port, int size);

    // Sends the text as it is: the caller ends every line with "\n". Returns what the system's
    // send() returned, or -1 when not connected. A failed or short send is not repeated and leaves
    // the connection as it is: only a failed read declares it lost.
    int send(const char* text);

    // Waits at most timeout microseconds for data, reads once and returns the next complete line
    // without its line end (CR, LF or a run of them), or null when there is none. The line lies in
    // the buffer of this object: it is valid until the next recv, open or close. A read that fails,
    // finds the end of the stream or finds no room in the buffer closes the connection and returns
    // null; complete lines still buffered are lost with it.
    char* recv(long timeout);

    // With a limit for the peer: closes the connection when its peer has vanished, and tells so. To
    // be called once in a peer_watch_period(). True when it did.
    bool drop_vanished();

    // Closes the socket and frees the buffer. Harmless when already closed.
    void close();

    // The socket for the caller's select(), -1 when not connected.
    int get_fd() const { return m_nSock; }

private:
    bool read_more();
    char* take_line();

    char* m_pBuf = nullptr;   // m_nBufSize bytes, one of them for the NUL at m_pEnd
    char* m_pRead = nullptr;  // first byte not yet handed out
    char* m_pEnd = nullptr;   // one past the last byte received
    int m_nBufSize = 0;
    int m_nSock = -1;
    CTQRLimits m_limits;
    CPeerWatch m_watch;
};
