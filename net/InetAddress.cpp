#include "net/InetAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

const size_t MAX_NAME = 79;

// atoi as on a machine with 32-bit long: larger numbers saturate.
int32_t atoi32(const char* text) {
    const long long number = strtoll(text, nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(number, INT32_MIN, INT32_MAX));
}

// Reads a dotted quad that ends with the text or at a ':'. An empty part counts as 0. Returns the
// address in host byte order; 0 if the text is no dotted quad, or is 0.0.0.0.
unsigned long parseIP(const char* text) {
    uint32_t value = 0;
    int dots = 0;
    const char* part = text;
    for (const char* p = text;; ++p) {
        const bool end = *p == '\0' || *p == ':';
        if (*p == '.' || end) {
            const int32_t number = atoi32(part);
            if (number > 255) {
                return 0;
            }
            value = value << 8 | static_cast<uint32_t>(number);
            part = p + 1;
            if (end) {
                return dots == 3 ? value : 0;
            }
            ++dots;
        } else if (*p < '0' || *p > '9') {
            return 0;
        }
    }
}

// Writes value in decimal with a NUL. Returns the number of digits.
int ByteToAscii(char* text, unsigned char value) {
    const int hundreds = value / 100;
    const int tens = value / 10 % 10;
    char* p = text;
    if (hundreds != 0) {
        *p++ = static_cast<char>('0' + hundreds);
    }
    if (hundreds != 0 || tens != 0) {
        *p++ = static_cast<char>('0' + tens);
    }
    *p++ = static_cast<char>('0' + value % 10);
    *p = '\0';
    return static_cast<int>(p - text);
}

}  // namespace

int CInetAddress::SetAddress(long ip, unsigned short port) {
    Store({htonl(static_cast<uint32_t>(ip))}, port);
    return 0;
}

int CInetAddress::SetAddress(const char* text, unsigned short port) {
    const char* const colon = strchr(text, ':');
    if (colon != nullptr) {
        port = static_cast<uint16_t>(atoi32(colon + 1));
    }
    const unsigned long ip = parseIP(text);
    if (ip != 0) {
        return SetAddress(static_cast<long>(ip), port);
    }

    const size_t length = colon != nullptr ? static_cast<size_t>(colon - text) : strlen(text);
    if (length == 0 || length > MAX_NAME) {
        return -1;
    }
    char name[MAX_NAME + 1];
    memcpy(name, text, length);
    name[length] = '\0';
    return strcmp(name, "localhost") == 0 ? SetLocalAddress(port) : SetNamedHost(name, port);
}

int CInetAddress::SetListenAddress(unsigned short port) {
    Store({htonl(INADDR_ANY)}, port);
    return 0;
}

int CInetAddress::SetLocalAddress(unsigned short port) {
    char name[257];
    if (gethostname(name, sizeof name) != 0) {
        return -1;
    }
    name[sizeof name - 1] = '\0';  // a truncated name may lack it
    return SetNamedHost(name, port);
}

int CInetAddress::SetNamedHost(const char* name, unsigned short port) {
    const hostent* const host = gethostbyname(name);
    in_addr ip;
    if (host == nullptr || host->h_length != sizeof ip || host->h_addr_list[0] == nullptr) {
        return -1;
    }
    memcpy(&ip, host->h_addr_list[0], sizeof ip);
    Store(ip, port);
    return 0;
}

void CInetAddress::Store(in_addr ip, unsigned short port) {
    m_Addr = {};
    m_Addr.sin_family = AF_INET;
    m_Addr.sin_port = htons(port);
    m_Addr.sin_addr = ip;
}

unsigned long CInetAddress::GetIP() const {
    return ntohl(m_Addr.sin_addr.s_addr);
}

unsigned short CInetAddress::GetPort() const {
    return ntohs(m_Addr.sin_port);
}

void CInetAddress::GetIP(char* text) const {
    const unsigned long ip = GetIP();
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += ByteToAscii(text, static_cast<unsigned char>(ip >> shift));
        if (shift != 0) {
            *text++ = '.';
        }
    }
}

bool CInetAddress::operator!=(const CInetAddress& other) const {
    return GetIP() != other.GetIP() || GetPort() != other.GetPort();
}
