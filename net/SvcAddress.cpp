#include "net/SvcAddress.h"

CSvcAddress::CSvcAddress(unsigned long host, unsigned short port)
    : m_nHost(static_cast<uint32_t>(host)), m_nPort(port) {}

void CSvcAddress::SetHost(unsigned long host) {
    m_nHost = static_cast<uint32_t>(host);
}

bool CSvcAddress::operator==(const CSvcAddress& other) const {
    return m_nHost == other.m_nHost && m_nPort == other.m_nPort;
}

bool CSvcAddress::operator<(const CSvcAddress& other) const {
    return m_nHost < other.m_nHost || m_nPort < other.m_nPort;
}

bool CSvcAddress::operator>(const CSvcAddress& other) const {
    return m_nHost > other.m_nHost || m_nPort > other.m_nPort;
}
