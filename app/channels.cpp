// The channel table and the control lines that change it.

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "app/orvex.h"
#include "tqr/dotted_quad.h"
#include "tqr/tqr_util.h"

Channel channels[CHANNEL_COUNT];

namespace {

const uint16_t DEFAULT_REMOTE_PORT = 93;
const int SOURCE_SIZE = 200;

void send_channel_line(const char* format, int channel_number) {
    char line[32];
    snprintf(line, sizeof line, format, channel_number);
    local.send(line);
}

int to_int(const char* text) {
    return static_cast<int>(tqr_strtol(text, nullptr, 10));
}

// A digit first makes a circuit-group address, a '.' before the first blank a remote server.
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

// Cuts text at the first separator and reads the number behind it; otherwise leaves number alone.
void cut_number(char* text, char separator, int& number) {
    char* found = strchr(text, separator);
    if (found != nullptr) {
        *found = '\0';
        number = to_int(found + 1);
    }
}

// "ip", "ip:port", "ip/gpi" or "ip:port/gpi". The '/' is looked for first, so "ip/gpi:port" names
// no port.
void parse_remote_source(const char* source, ChannelConfig& config) {
    char copy[SOURCE_SIZE];
    int gpi_number = 1;
    int port = DEFAULT_REMOTE_PORT;
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

// The value of an SRCA field.
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

// What the old configuration has open is ended before the outputs are released, and what the new
// one needs is begun after that, so that no state of the old source arrives behind the release.
void reconfigure(int index, const ChannelConfig& config) {
    Channel& channel = channels[index];
    const int number = index + 1;
    const unsigned long entry = static_cast<unsigned long>(index);
    if (channel.proto == KIND_REMOTE) {
        gpiocli.close(entry);
    } else if (channel.proto == KIND_BUS) {
        send_channel_line("DEL GPI %d\n", number);
    }
    send_channel_line("GPO %d HHHHH\n", number);
    copy_state(channel.gpo_state, "HHHHH");
    if (config.proto == KIND_REMOTE) {
        gpiocli.open(entry, config.ip, config.port, static_cast<unsigned char>(config.gpi));
    } else if (config.proto == KIND_BUS) {
        send_channel_line("ADD GPI %d\n", number);
    }
    static_cast<ChannelConfig&>(channel) = config;
}

}  // namespace

bool ChannelConfig::operator==(const ChannelConfig& other) const {
    return proto == other.proto && ach == other.ach && ip == other.ip && port == other.port &&
           gpi == other.gpi;
}

void copy_state(char (&state)[PIN_COUNT], const char* text) {
    for (char& pin : state) {
        pin = *text;
        if (*text != '\0') {
            ++text;
        }
    }
}

int parse_CFG(const char* text) {
    if (dbg != 0) {
        printf("parse_CFG(%s)\n", text);
    }
    if (strncmp(text, "GPO ", 4) != 0) {
        return 0;
    }
    const char* fields = nullptr;
    const long number = tqr_strtol(text + 4, &fields, 0);
    if (number < 1 || number > CHANNEL_COUNT) {
        return 0;
    }
    const char* source = tqr_findval(fields, "SRCA");
    if (source == nullptr) {
        return 0;
    }
    const ChannelConfig config = parse_source(source);
    if (dbg != 0) {
        printf("GPO %ld proto=%u ach=%X gpi=%d ip=%s:%d\n", number, config.proto, config.ach,
               config.gpi, DottedQuad(config.ip).text, config.port);
    }
    const int index = static_cast<int>(number) - 1;
    if (config == channels[index]) {
        return 0;
    }
    reconfigure(index, config);
    return 1;
}

void parse_GPO(const char* text) {
    const int HIGHEST_FOLLOWED = 8;
    if (dbg != 0) {
        printf("parse_GPO %s\n", text);
    }
    const char* behind = nullptr;
    const long number = tqr_strtol(text, &behind, 0);
    if (number < 1 || number > HIGHEST_FOLLOWED || *behind != ' ') {
        return;
    }
    Channel& channel = channels[number - 1];
    if (channel.proto == KIND_BUS) {
        copy_state(channel.gpo_state, behind + 1);
    }
}

void parse_SET(const char* text) {
    if (dbg != 0) {
        printf("parse_SET(%s)\n", text);
    }
    const char* value = tqr_findval(text, "NIC_IPADDR");
    if (value == nullptr) {
        return;
    }
    const uint32_t address = url2ip(value);
    if (address != iface) {
        iface = address;
        iface_changed = 1;
    }
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
