// The bytes of both versions of the protocol.
//
// 3.1: messages of 18 bytes: 0x80 + address, a control byte, 16 characters.
//
// 5.0: packets with 16-bit numbers, low byte first: the count of bytes that follow it, a version
// byte of 0, a byte of flags, a screen, and displays: index, control, length of the label, label.
// On a stream a packet begins with DLE STX, and each DLE in it is sent twice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/tsl/Display.h"

const size_t TSL31_SIZE = 18;
const uint16_t TSL31_HIGHEST = 126;
const size_t TSL5_MAX_SIZE = 2048;  // of a packet, with its count, without DLE and STX

// Reads a datagram: one or more messages of 3.1, or a packet of 5.0. Returns the reason if it is
// malformed, else an empty text; displays are added only if all of it is well-formed. What 5.0
// reserves for later is skipped: control data of a screen. Labels lose padding at their ends, and
// invalid UTF-16 in them becomes U+FFFD.
std::string DecodeTsl(TslVersion version, const uint8_t* data, size_t size,
                      std::vector<Display>& displays);

// Writes displays of one version as the datagrams of that version: in 3.1 one each, in 5.0 as many
// displays in a packet as fit, all for their first one's screen. Labels are cut where they are too
// long: at 16 characters in 3.1, which sends '?' for what is not printable ASCII. In 5.0 they are
// sent as ASCII if all of them are, else as UTF-16.
std::vector<std::string> EncodeTsl(const std::vector<Display>& displays);

// A packet as it is sent on a stream: in 5.0 with DLE STX and doubled DLEs, in 3.1 as it is.
std::string WrapTsl(TslVersion version, const std::string& packet);

// Finds packets in a stream, which may be cut anywhere. Memory is bounded.
class TslStream {
public:
    explicit TslStream(TslVersion version) : m_version(version) {}

    // Takes bytes; calls packet for each complete packet, and lost for each place where bytes were
    // skipped to find the next one.
    void Take(const uint8_t* data, size_t size,
              const std::function<void(const uint8_t*, size_t)>& packet,
              const std::function<void()>& lost);

private:
    enum class State { Searching, Begun, InPacket, AfterDle };

    bool TakeByte31(uint8_t byte, const std::function<void()>& lost);
    bool TakeByte5(uint8_t byte, const std::function<void()>& lost);
    bool Append(uint8_t byte, const std::function<void()>& lost);
    void Skip(const std::function<void()>& lost);

    const TslVersion m_version;
    State m_state = State::Searching;
    bool m_told = false;            // that bytes are skipped
    std::vector<uint8_t> m_packet;  // what has come of it
};
