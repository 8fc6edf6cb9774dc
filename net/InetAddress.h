// An IPv4 socket address for the system's socket calls.
#pragma once

#include <netinet/in.h>

// Wraps a sockaddr_in. Addresses and ports are passed in host byte order. A setter that succeeds
// clears the unused parts of the address; one that fails leaves the address unchanged. The setters
// that take a text resolve names, which blocks for as long as the system's resolver takes. Prints
// nothing.
class CInetAddress {
public:
    // The address is unset: it must be set, or filled by a receive call, before it is read.
    CInetAddress() = default;
    virtual ~CInetAddress() = default;
    CInetAddress(const CInetAddress&) = default;
    CInetAddress& operator=(const CInetAddress&) = default;

    // The address ip (its low 32 bits count) and the port. Returns 0.
    int SetAddress(long ip, unsigned short port);

    // A dotted quad or a host name of up to 79 characters, never null. A ':' ends it, and the
    // number after the ':' (its low 16 bits, 0 if it is no number) replaces port. The name
    // "localhost" means the machine's own name, as in SetLocalAddress. Returns 0, or -1 if the text
    // names no address.
    int SetAddress(const char* text, unsigned short port);

    // Any address of this machine (0.0.0.0), to bind to. Returns 0.
    int SetListenAddress(unsigned short port);

    // The first address to which the machine's own host name resolves. Returns 0, or -1 if there is
    // none.
    int SetLocalAddress(unsigned short port);

    unsigned long GetIP() const;
    unsigned short GetPort() const;

    // Writes the address as a dotted quad with its NUL: text holds at least 16 bytes.
    void GetIP(char* text) const;

    // The socket address itself (in network byte order) and its length.
    const sockaddr* GetAddressPtr() const { return reinterpret_cast<const sockaddr*>(&m_Addr); }
    sockaddr* GetAddress() { return reinterpret_cast<sockaddr*>(&m_Addr); }
    int GetAddressSize() const { return static_cast<int>(sizeof m_Addr); }

    // Whether address or port differ.
    bool operator!=(const CInetAddress& other) const;

private:
    int SetNamedHost(const char* name, unsigned short port);
    void Store(in_addr ip, unsigned short port);

    sockaddr_in m_Addr;
};
