// Pin states between the bus, the channel table and TQRD.

#include <arpa/inet.h>

#include <cctype>
#include <cstdio>

#include "app/orvex.h"
#include "msg/cmsgdump.h"
#include "tqr/line.h"
#include "tqr/tqr_util.h"
#include "tqr/trace.h"

namespace {

// The circuits of a channel's pins, in the order of state texts: its input's from index 0 on, its
// output's from index 8 on. 0 is no circuit.
const unsigned char CircIDs[16] = {13, 12, 11, 10, 9, 0, 0, 0, 8, 7, 6, 5, 4, 0, 0, 0};
const int INPUT_CIRCUITS = 0;
const int OUTPUT_CIRCUITS = 8;
const int INPUT_PINS = 8;  // pin numbers from here on are pins of the input

void send_to_group(CMsg2& msg) {
    CSvcAddress dest(ntohl(gpioip), REPORT_PORT);
    deliver_msg(msg, rudpcli, dest);
}

// The channels of KIND_BUS: bit c = channels[c].
unsigned long bus_channels() {
    unsigned long set = 0;
    for (int c = 0; c < CHANNEL_COUNT; ++c) {
        set |= channels[c].proto == KIND_BUS ? 1UL << c : 0;
    }
    return set;
}

// Calls visit(channel index, tag, pin number) for every item that is a pin, once for every channel
// with the item's address.
template <class Visitor>
void for_each_pin(const CMessage& request, Visitor visit) {
    const unsigned long followed = bus_channels();
    for (unsigned int i = 0; i < request.GetItemCount(); ++i) {
        unsigned long tag = 0;
        request.GetItemTag(i, tag);
        const int pin = cid2pin(tag & 0xFF);
        if (pin < 0) {
            continue;
        }
        for_each_entry(followed, [&](int c) {
            if (channels[c].ach == tag >> 8) {
                visit(c, tag, pin);
            }
        });
    }
}

void write_pin(int channel_number, int pin, unsigned char value) {
    char state[] = "xxxxx";
    state[pin] = (value & LEVEL_LOW) != 0 ? 'L' : 'H';
    const unsigned int step = (value & STEP_10_MS) != 0 ? FINE_STEP_MS : COARSE_STEP_MS;
    const int duration = static_cast<int>((value & COUNT_MASK) * step);
    char line[40];
    if (duration == 0) {
        write_line(line, "GPO ", channel_number, " ", state, "\n");
    } else {
        write_line(line, "GPO ", channel_number, " ", state, " DURATION:", duration, "\n");
    }
    local.send(line);
    if (dbg != 0) {
        printf("cmsgprocess > TQR %s\n", line);
    }
}

void write_pins(CMessage& request) {
    for_each_pin(request, [&request](int c, unsigned long tag, int pin) {
        if (pin >= INPUT_PINS) {
            return;  // inputs can't be set
        }
        const unsigned char value = request.GetByte(tag);
        if (dbg != 0) {
            printf("cmsgprocess ch=%lX circ=%d value=%X\n", tag >> 8, static_cast<int>(tag & 0xFF),
                   value);
        }
        write_pin(c + 1, pin, value);
    });
}

unsigned char read_pin(const Channel& channel, int pin) {
    const bool is_output = pin < INPUT_PINS;
    // pin is never 5 to 7. cppcheck-suppress arrayIndexOutOfBoundsCond
    const char state = is_output ? channel.gpo_state[pin] : channel.gpi_state[pin - INPUT_PINS];
    return tolower(static_cast<unsigned char>(state)) == 'l' ? 1 : 0;
}

// If memory is short there is no reply: an incomplete one would be taken for a complete one.
void answer_read(CMessage& request, unsigned long request_id) {
    CMessage reply(MSG_SIZE, MSG_GROW_BY);
    reply.SetId(ID_REPORT);
    bool complete = reply.SetDword(TAG_REFERS_TO, request_id);
    // A tag that the request repeats already has its value. A pin of several channels with one
    // address is visited once for each of them in a row; the last one's value counts.
    int answered[CHANNEL_COUNT] = {};  // bits of pins
    unsigned long last = TAG_REFERS_TO;
    for_each_pin(request, [&](int c, unsigned long tag, int pin) {
        if ((answered[c] & 1 << pin) == 0) {
            answered[c] |= 1 << pin;
            const unsigned char value = read_pin(channels[c], pin);
            complete =
                (tag == last ? reply.SetByte(tag, value) : reply.AddByte(tag, value)) && complete;
            last = tag;
        }
    });
    if (last != TAG_REFERS_TO && complete && reply.SetByte(TAG_REPLY_KIND, REPLY_TO_READ) &&
        reply.SetQword(TAG_REQUEST_DATA, request.GetQword(TAG_REQUEST_DATA))) {
        send_to_group(reply);
    }
}

// Encodes a copy of the message, or the message itself if that is the same.
bool encode_copy(const CMsg2& msg, CRUdpLayer3Client& client) {
    if (msg.EqualsItsCopy()) {
        return client.Encode(msg);
    }
    CMsg2 copy(0, MSG_GROW_BY);
    return copy.Copy(&msg) && client.Encode(copy);
}

}  // namespace

int cid2pin(unsigned long circuit) {
    for (int pin = 0; pin < PIN_COUNT; ++pin) {
        if (CircIDs[OUTPUT_CIRCUITS + pin] == circuit) {
            return pin;
        }
    }
    for (int pin = 0; pin < PIN_COUNT; ++pin) {
        if (CircIDs[INPUT_CIRCUITS + pin] == circuit) {
            return INPUT_PINS + pin;
        }
    }
    return -1;
}

int iostate2cmsg(CMsg2* msg, unsigned long ach, const char* state, int offset) {
    int count = 0;
    const bool are_new = msg->GetItemCount() == 0;  // the five tags differ
    for (int i = 0; i < PIN_COUNT; ++i) {
        const unsigned long tag = (ach << 8) + CircIDs[i + offset];
        const unsigned char value = state[i] == 'L' ? 1 : 0;
        switch (state[i]) {
            case 'L':
            case 'H':
                count += (are_new ? msg->AddByte(tag, value) : msg->SetByte(tag, value)) ? 1 : 0;
                break;
            case 'l':
            case 'h':
                break;
            default:
                return count;
        }
    }
    return count;
}

void send_state_to_kelvo(unsigned long ach, const char* state, int offset) {
    CMsg2 report(MSG_SIZE, MSG_GROW_BY);
    report.SetId(ID_REPORT);
    if (iostate2cmsg(&report, ach, state, offset) > 0) {
        send_to_group(report);
    }
}

int deliver_msg(CMsg2& msg, CRUdpLayer3Client& client, CSvcAddress& dest) {
    if (dbg != 0 && msgdump != nullptr) {
        printf("I> %s:%d\n   %s\n", DottedQuad(htonl(static_cast<uint32_t>(dest.GetHost()))).text,
               dest.GetPort(), Msg2String(&msg, '?', msgdump, MSG_LABEL_TAG));
    }
    // Encoded once: the two packets differ only in their transaction IDs.
    const bool encoded = encode_copy(msg, client);
    for (int i = 0; i < 2; ++i) {
        if (!encoded || !client.SendEncoded(dest, CRUdpLayer3Client::DATAGRAM)) {
            printf("%s RUDP:SendMsg failed with error: %lu\n", APP_NAME, client.GetLastError());
        }
    }
    return 1;
}

void cmsgprocess(CMessage& request) {
    // Looked up for every message: this moves the cursor, which decides between items with one tag.
    const unsigned long request_id = request.GetDword(TAG_REQUEST_ID);
    switch (request.GetId()) {
        case ID_WRITE:
        case ID_WRITE_ALIAS:
            write_pins(request);
            break;
        case ID_READ:
            answer_read(request, request_id);
            break;
        default:
            break;
    }
}

void parse_GPI(const char* text) {
    if (dbg != 0) {
        printf("parse_GPI %s\n", text);
    }
    const char* behind = nullptr;
    const long number = tqr_strtol(text, &behind, 0);
    if (number < 1 || number > CHANNEL_COUNT || *behind != ' ') {
        return;
    }
    Channel& channel = channels[number - 1];
    if (channel.proto == KIND_BUS) {
        copy_state(channel.gpi_state, behind + 1);
        send_state_to_kelvo(channel.ach, behind + 1, INPUT_CIRCUITS);
    }
}
