// A host and a port as two numbers: how the application addresses a peer.
#pragma once

#include <cstdint>

// An IPv4 address (32 bits, its most significant byte the first of the dotted quad) and a port,
// both in host byte order. A plain value.
class CSvcAddress {
public:
    // 0.0.0.0, port 0.
    CSvcAddress() = default;
    CSvcAddress(unsigned long host, unsigned short port);

    void SetHost(unsigned long host);
    unsigned long GetHost() const { return m_nHost; }
    void SetPort(unsigned short port) { m_nPort = port; }
    unsigned short GetPort() const { return m_nPort; }

    bool operator==(const CSvcAddress& other) const;

    // Whether the host or the port, compared separately, is below (above) the other's. This is not
    // an order: both a < b and b < a hold if a has the lower host and b the lower port. Don't sort
    // by it or use it for the keys of a map.
    bool operator<(const CSvcAddress& other) const;
    bool operator>(const CSvcAddress& other) const;

private:
    uint32_t m_nHost = 0;
    uint16_t m_nPort = 0;
};
