#include "protocol/source.h"

#include <arpa/inet.h>

#include <cstring>

#include "tqr/tqr_util.h"

namespace {

const int SOURCE_SIZE = 200;

int to_int(const char* text) {
    return static_cast<int>(tqr_strtol(text, nullptr, 10));
}

// A '.' before the first blank makes a remote server; else a leading digit makes a circuit-group
// address.
ChannelKind source_kind(const char* source) {
    for (const char* p = source; *p != '\0' && *p != ' '; ++p) {
        if (*p == '.') {
            return KIND_REMOTE;
        }
    }
    return *source >= '0' && *source <= '9' ? KIND_BUS : KIND_NONE;
}

// "a" or "a:b"
uint32_t parse_group_address(const char* source) {
    const char* behind = nullptr;
    const uint32_t a = static_cast<uint32_t>(tqr_strtol(source, &behind, 0));
    if (*behind != ':') {
        return a;
    }
    return a << 8 | static_cast<uint32_t>(tqr_strtol(behind + 1, nullptr, 0));
}

// Cuts text at the first separator and reads the number after it. Without one, number is unchanged.
void cut_number(char* text, char separator, int& number) {
    char* found = strchr(text, separator);
    if (found != nullptr) {
        *found = '\0';
        number = to_int(found + 1);
    }
}

// "ip", "ip:port", "ip/gpi" or "ip:port/gpi". It looks for the '/' first, so "ip/gpi:port" has no
// port.
void parse_remote_source(const char* source, ChannelConfig& config) {
    char copy[SOURCE_SIZE];
    int gpi_number = 1;
    int port = LINE_PORT;
    tqr_copyval(copy, source, sizeof copy);
    cut_number(copy, '/', gpi_number);
    cut_number(copy, ':', port);
    config.ip = inet_addr(copy);
    if (config.ip == INADDR_NONE) {
        config.proto = KIND_NONE;
        return;
    }
    config.gpi = static_cast<uint16_t>(static_cast<uint32_t>(gpi_number) - 1);
    config.port = static_cast<uint16_t>(port);
}

}  // namespace

ChannelConfig parse_source(const char* source) {
    if (*source == '"') {
        ++source;
    }
    if (strncmp(source, "tqs://", 6) == 0) {
        source += 6;
    }
    ChannelConfig config = {};
    config.proto = source_kind(source);
    if (config.proto == KIND_BUS) {
        config.ach = parse_group_address(source);
    } else if (config.proto == KIND_REMOTE) {
        parse_remote_source(source, config);
    }
    return config;
}

const char* find_source(const char* text, int& number) {
    if (strncmp(text, "GPO ", 4) != 0) {
        return nullptr;
    }
    const char* fields = nullptr;
    const long channel = tqr_strtol(text + 4, &fields, 0);
    if (channel < 1 || channel > CHANNEL_COUNT) {
        return nullptr;
    }
    number = static_cast<int>(channel);
    return tqr_findval(fields, "SRCA");
}

bool ChannelConfig::operator==(const ChannelConfig& other) const {
    return proto == other.proto && ach == other.ach && ip == other.ip && port == other.port &&
           gpi == other.gpi;
}

uint32_t url2ip(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    if (*text == '"') {
        ++text;
    }
    uint32_t value = 0;
    for (int part = 0; part < 4; ++part) {
        if (part > 0 && *text++ != '.') {
            return 0;
        }
        value = value << 8 | static_cast<uint32_t>(tqr_strtol(text, &text, 0));
    }
    return htonl(value);
}
