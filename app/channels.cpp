// The channel table and the control lines that change it.

#include <cstdio>

#include "app/orvex.h"
#include "tqr/line.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

Channel channels[CHANNEL_COUNT];

namespace {

void send_channel_line(const char* words, int channel_number, const char* end) {
    char line[32];
    write_line(line, words, channel_number, end);
    local.send(line);
}

// Ends the old source before it sets the outputs high, and begins the new one afterwards, so that
// no state of the old source arrives after the outputs have been set high.
void reconfigure(int index, const ChannelConfig& config) {
    Channel& channel = channels[index];
    const int number = index + 1;
    const unsigned long entry = static_cast<unsigned long>(index);
    if (channel.proto == KIND_REMOTE) {
        gpiocli.close(entry);
    } else if (channel.proto == KIND_BUS) {
        send_channel_line("DEL GPI ", number, "\n");
    }
    send_channel_line("GPO ", number, " HHHHH\n");
    copy_state(channel.gpo_state, "HHHHH");
    if (config.proto == KIND_REMOTE) {
        gpiocli.open(entry, config.ip, config.port, static_cast<unsigned char>(config.gpi));
    } else if (config.proto == KIND_BUS) {
        send_channel_line("ADD GPI ", number, "\n");
    }
    static_cast<ChannelConfig&>(channel) = config;
}

}  // namespace

void copy_state(char (&state)[PIN_COUNT], const char* text) {
    for (char& pin : state) {
        pin = *text;
        if (*text != '\0') {
            ++text;
        }
    }
}

void subscribe_inputs() {
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        if (channels[i].proto == KIND_BUS) {
            send_channel_line("ADD GPI ", i + 1, "\n");
        }
    }
}

int parse_CFG(const char* text) {
    if (dbg != 0) {
        printf("parse_CFG(%s)\n", text);
    }
    int number = 0;
    const char* source = find_source(text, number);
    if (source == nullptr) {
        return 0;
    }
    const ChannelConfig config = parse_source(source);
    if (dbg != 0) {
        printf("GPO %d proto=%u ach=%X gpi=%d ip=%s:%d\n", number, config.proto, config.ach,
               config.gpi, DottedQuad(config.ip).text, config.port);
    }
    const int index = number - 1;
    if (config == channels[index]) {
        return 0;
    }
    reconfigure(index, config);
    return 1;
}

void parse_GPO(const char* text) {
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
