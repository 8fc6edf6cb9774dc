// One IPv4 socket.
#pragma once

class CInetAddress;

// Owns at most one descriptor; each operation is one or two system calls. Results are the system's:
// 0 or a count on success, -1 on failure with errno set. Prints nothing. Multicast addresses are in
// network byte order (their low 32 bits count), ports in host byte order, times in milliseconds.
// Without a socket the calls fail as the system calls do (-1), unless stated otherwise. For one
// thread; not copied.
class CInetSocket {
public:
    // No socket.
    CInetSocket();
    virtual ~CInetSocket();
    CInetSocket(const CInetSocket&) = delete;
    CInetSocket& operator=(const CInetSocket&) = delete;

    // The descriptor, -1 when there is none.
    operator int() const { return m_nSocket; }

    // Opens a TCP (stream) or a UDP socket; close an open one first. A descriptor that does not fit
    // an fd_set counts as a failure (EMFILE). Returns 0 or -1.
    int Open(bool stream);

    // Binds to the port (its low 16 bits) of the given local address, a text as for
    // CInetAddress::SetAddress, or of any address if host is null. Other sockets may bind to the
    // same port; multicasts leave through the bound address. Returns 0; -1 with the socket still
    // open if host names no address; -1 with the socket closed if it can't be bound.
    int Bind(int port, const char* host);

    // Ends the connection in both directions and closes. Harmless without a socket.
    void Close();
    // Only closes. Returns the result of close(); 0 without a socket.
    int ForceClose();

    int SetMcastTTL(unsigned int ttl);
    // The interface, named by its address, through which multicasts leave.
    int SetMcastInterface(unsigned long iface);
    // Receives what is sent to the group on the interface with that address (0: the system
    // chooses).
    int JoinMcastGroup(unsigned long group, unsigned long iface);
    int LeaveMcastGroup(unsigned long group, unsigned long iface);
    int AllowSendBroadcasts(bool allow);

    // Sizes of the system's buffers in bytes. The system may grant another size than requested.
    int SetWriteBufferSize(int size);
    int SetReadBufferSize(int size);
    int GetWriteBufferSize();
    int GetReadBufferSize();

    // Waits until the socket is readable (writable), at most ms; 0 only checks, 0xFFFFFFFF waits
    // without limit. Returns more than 0 if it is, 0 on a timeout, -1 on failure.
    int WaitForRead(unsigned long ms);
    int WaitForWrite(unsigned long ms);

    // Returns the result of ioctl(); 0 without a socket.
    int SetBlocking(bool blocking);
    // Bytes waiting to be read, -1 on failure, 0 without a socket.
    int GetBytesAvailable();

    // Stream: sends all len bytes. Returns len; fewer when the system takes no more; -1 on failure,
    // whatever was sent before.
    int Write(const char* data, int len);
    // Stream: receives len bytes. Returns len; what came when the peer closed or, on a non-blocking
    // socket, when no more is waiting; -1 on failure or when nothing at all is waiting.
    int Read(char* buf, int len);

    // Sends one datagram. Returns the bytes sent or -1.
    int Write(const CInetAddress* to, const char* data, int len);
    // Receives one datagram; what exceeds len is lost. Stores its sender in from. Returns the bytes
    // received or -1.
    int Read(CInetAddress* from, char* buf, int len);

private:
    int m_nSocket = -1;
};
