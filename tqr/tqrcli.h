// A connection to a TQR server: whole text lines over TCP.
#pragma once

#include "tqr/tqrlimits.h"

// What the daemon gives a line, of either kind of server, with its end.
constexpr int LINE_SIZE = 2000;

// Connects to one server, sends lines and splits what arrives into lines. Owns its socket and its
// line buffer. Never waits for data longer than the caller allows, so one select() loop can serve
// many; but open() waits as long as the system takes to complete or refuse the connection, unless
// limited.
//
// Reports failures on standard error, in messages that begin with "tqrcli". The process must ignore
// SIGPIPE. For one thread; not copied.
class CTQRClient {
public:
    // Not connected, and without a buffer.
    CTQRClient() = default;
    ~CTQRClient();
    CTQRClient(const CTQRClient&) = delete;
    CTQRClient& operator=(const CTQRClient&) = delete;

    // For connections opened from now on. Without this the system's own limits hold.
    void set_limits(const CTQRLimits& limits) { m_limits = limits; }

    // Drops any earlier connection and its buffered data, then connects to ip (network byte order;
    // 32 bits) and port (host byte order; its 16 bits count as unsigned). size limits a line: up to
    // size - 1 characters and the line end can be received. Returns the socket; -1 if it can't be
    // created or connected; -2 if memory is short.
    int open(unsigned long ip, short port, int size);

    // The same with a dotted quad. Names are not resolved: they fail as 255.255.255.255 does.
    int open(const char* host, short port, int size);

    // Sends the text unchanged: the caller ends every line with "\n". Returns the result of send(),
    // or -1 if not connected. A failed or short send is not repeated and does not close the
    // connection: only a failed read does.
    int send(const char* text);

    // Waits at most timeout microseconds for data, reads once and returns the next complete line
    // without its line end (CR, LF or a run of them), or null if there is none. The line is in this
    // object's buffer: it is valid until the next recv, open or close. If the read fails, finds the
    // end of the stream or finds the buffer full, the connection is closed and the result is null;
    // complete lines still buffered are lost.
    char* recv(long timeout);

    // With a limit for the peer: closes the connection, with a message, if the peer has vanished.
    // Call it once per peer_watch_period(). True if it did.
    bool drop_vanished();

    // Closes the socket and frees the buffer. Harmless if already closed.
    void close();

    // The socket for the caller's select(), -1 when not connected.
    int get_fd() const { return m_nSock; }

private:
    bool read_more();
    char* take_line();

    char* m_pBuf = nullptr;   // m_nBufSize bytes, one of them for the NUL at m_pEnd, and some more
    char* m_pRead = nullptr;  // first byte not yet handed out
    char* m_pEnd = nullptr;   // one past the last byte received
    int m_nBufSize = 0;
    int m_nSock = -1;
    CTQRLimits m_limits;
    CPeerWatch m_watch;
};
