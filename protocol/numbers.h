// The numbers of the protocol, for the daemon and for the programs beside it. docs/protocol.md
// explains them. The tests have copies of their own, so that an accidental change fails one.
#pragma once

#include <cstdint>

// ---- The bus

constexpr uint32_t DEFAULT_GROUP = 0xEFC0FF04;  // 239.192.255.4, host byte order
constexpr uint16_t BUS_PORT = 2060;             // requests: writes and reads
constexpr uint16_t REPORT_PORT = 2055;          // reports and replies

constexpr uint32_t ID_REPORT = 0x494E4449;       // "INDI": pin states, told or asked for
constexpr uint32_t ID_WRITE = 0x57524E49;        // "WRNI": set pins
constexpr uint32_t ID_WRITE_ALIAS = 0x5752494E;  // "WRIN": the same
constexpr uint32_t ID_READ = 0x52454144;         // "READ": ask for pin states

// Items with a meaning of their own. All other tags are pins: an address in the upper 24 bits, a
// circuit in the low 8.
constexpr uint32_t TAG_REQUEST_ID = 0xFFFFFFFF;    // dword of a request
constexpr uint32_t TAG_REFERS_TO = 0xFFFFFFFE;     // dword of a reply: the request's identifier
constexpr uint32_t TAG_REPLY_KIND = 0xFFFFFFFD;    // byte of a reply
constexpr uint32_t TAG_REQUEST_DATA = 0xFFFFFFFC;  // qword, given back as it came

constexpr uint8_t REPLY_TO_READ = 2;  // the byte of TAG_REPLY_KIND

// Pin 1 to 5 of a channel's input has circuit 13 to 9, pin 1 to 5 of its output circuit 8 to 4.
constexpr int PIN_COUNT = 5;
constexpr uint8_t FIRST_INPUT_CIRCUIT = 13;
constexpr uint8_t FIRST_OUTPUT_CIRCUIT = 8;

// The value byte of a write: a level, and a duration in steps of 10 or 250 ms, 0 for none.
constexpr uint8_t LEVEL_LOW = 0x40;
constexpr uint8_t STEP_10_MS = 0x80;
constexpr uint8_t COUNT_MASK = 0x1F;
constexpr unsigned int FINE_STEP_MS = 10;
constexpr unsigned int COARSE_STEP_MS = 250;
constexpr unsigned int LONGEST_PULSE_MS = COUNT_MASK * COARSE_STEP_MS;

// ---- The control lines

constexpr uint16_t LINE_PORT = 93;   // of TQRD and of remote GPIO servers
constexpr int CHANNEL_COUNT = 32;    // outputs that can be configured, from 1 on
constexpr int HIGHEST_FOLLOWED = 8;  // outputs whose state is kept; those above read high

// ---- Times

// The daemon reconnects lost remote servers in one sweep, at least this long after the one before,
// and waits no longer for input.
constexpr int SWEEP_PERIOD_S = 27;
