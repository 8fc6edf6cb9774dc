#include "tools/tsl/Codec.h"

#include <algorithm>

namespace {

const uint8_t HEADER_31 = 0x80;
const uint8_t TALLIES_31 = 0x0F;
const int BRIGHTNESS_SHIFT_31 = 4;
const uint8_t RESERVED_31 = 0xC0;  // later versions use it for messages of other kinds

const size_t COUNT_SIZE = 2;
const size_t HEADER_SIZE = 6;   // with the count: version, flags, screen
const size_t DISPLAY_SIZE = 6;  // index, control, length
const uint8_t UNICODE_FLAG = 0x01;
const uint8_t SCREEN_CONTROL_FLAG = 0x02;
const uint16_t TALLIES_5 = 0x3F;
const int BRIGHTNESS_SHIFT_5 = 6;
const uint8_t BRIGHTNESS_MASK = 3;
const uint16_t CONTROL_DATA = 0x8000;  // not defined in 5.0

const uint8_t DLE = 0xFE;
const uint8_t STX = 0x02;

uint16_t Read16(const uint8_t* data) {
    return static_cast<uint16_t>(data[0] | data[1] << 8);
}

void Put16(std::string& out, size_t number) {
    out += static_cast<char>(number & 0xFF);
    out += static_cast<char>(number >> 8 & 0xFF);
}

std::string Trimmed(const std::string& text) {
    const std::string padding(" \0", 2);
    const size_t last = text.find_last_not_of(padding);
    return last == text.npos ? "" : text.substr(0, last + 1);
}

// ---- UTF-16LE and UTF-8

const uint32_t REPLACEMENT = 0xFFFD;

void PutUtf8(std::string& out, uint32_t c) {
    const auto put = [&out](uint32_t byte) { out += static_cast<char>(byte); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | c >> 6);
        put(0x80 | (c & 0x3F));
    } else {
        if (c < 0x10000) {
            put(0xE0 | c >> 12);
        } else {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
        }
        put(0x80 | (c >> 6 & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

bool IsHighSurrogate(uint32_t unit) {
    return (unit & 0xFC00) == 0xD800;
}

bool IsLowSurrogate(uint32_t unit) {
    return (unit & 0xFC00) == 0xDC00;
}

std::string FromUtf16(const uint8_t* data, size_t size) {
    std::string text;
    for (size_t i = 0; i + 1 < size; i += 2) {
        uint32_t c = Read16(data + i);
        if (IsHighSurrogate(c) && i + 3 < size && IsLowSurrogate(Read16(data + i + 2))) {
            c = 0x10000 + ((c & 0x3FF) << 10) + (Read16(data + i + 2) & 0x3FFU);
            i += 2;
        } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
            c = REPLACEMENT;
        }
        PutUtf8(text, c);
    }
    return text;
}

// The next character, from which pos moves on. What is not UTF-8 is a replacement.
uint32_t NextCharacter(const std::string& text, size_t& pos) {
    const uint8_t first = static_cast<uint8_t>(text[pos++]);
    if (first < 0x80) {
        return first;
    }
    const int more = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : 1;
    uint32_t c = first & (0x3FU >> more);
    for (int i = 0; i < more; ++i) {
        if (first < 0xC0 || first > 0xF7 || pos >= text.size() || (text[pos] & 0xC0) != 0x80) {
            return REPLACEMENT;
        }
        c = c << 6 | (static_cast<uint8_t>(text[pos++]) & 0x3FU);
    }
    return c > 0x10FFFF || (c >= 0xD800 && c < 0xE000) ? REPLACEMENT : c;
}

std::string ToUtf16(const std::string& text) {
    std::string out;
    for (size_t pos = 0; pos < text.size();) {
        const uint32_t c = NextCharacter(text, pos);
        if (c < 0x10000) {
            Put16(out, c);
        } else {
            Put16(out, 0xD800 | (c - 0x10000) >> 10);
            Put16(out, 0xDC00 | ((c - 0x10000) & 0x3FF));
        }
    }
    return out;
}

bool IsAscii(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; });
}

// ---- 3.1

std::string Decode31(const uint8_t* data, size_t size, std::vector<Display>& displays) {
    if (size == 0 || size % TSL31_SIZE != 0) {
        return "not messages of 18 bytes";
    }
    std::vector<Display> found;
    for (const uint8_t* at = data; at < data + size; at += TSL31_SIZE) {
        if (at[0] < HEADER_31 || at[0] > HEADER_31 + TSL31_HIGHEST) {
            return "no address from 0 to 126";
        }
        if ((at[1] & RESERVED_31) != 0) {
            return "reserved bits of the control byte are set";
        }
        Display display;
        display.index = static_cast<uint16_t>(at[0] - HEADER_31);
        display.tallies = at[1] & TALLIES_31;
        display.brightness = at[1] >> BRIGHTNESS_SHIFT_31 & BRIGHTNESS_MASK;
        display.label = Trimmed(std::string(at + 2, at + TSL31_SIZE));
        found.push_back(display);
    }
    displays.insert(displays.end(), found.begin(), found.end());
    return {};
}

std::string Encode31(const Display& display) {
    std::string packet;
    packet += static_cast<char>(HEADER_31 + std::min(display.index, TSL31_HIGHEST));
    packet += static_cast<char>((display.tallies & TALLIES_31) |
                                (display.brightness & BRIGHTNESS_MASK) << BRIGHTNESS_SHIFT_31);
    for (size_t pos = 0; packet.size() < TSL31_SIZE;) {
        const uint32_t c = pos < display.label.size() ? NextCharacter(display.label, pos) : ' ';
        packet += c >= ' ' && c <= '~' ? static_cast<char>(c) : '?';
    }
    return packet;
}

// ---- 5.0

// Reads the displays after the header.
std::string DecodeDisplays(const uint8_t* data, size_t size, bool unicode, uint16_t screen,
                           std::vector<Display>& displays) {
    size_t at = 0;
    while (at < size) {
        if (size - at < DISPLAY_SIZE) {
            return "a display is cut off";
        }
        Display display;
        display.version = TslVersion::V5;
        display.screen = screen;
        display.index = Read16(data + at);
        const uint16_t control = Read16(data + at + 2);
        const size_t length = Read16(data + at + 4);
        at += DISPLAY_SIZE;
        if ((control & CONTROL_DATA) != 0) {
            return "control data, which 5.0 does not define";
        }
        if (length > size - at || (unicode && length % 2 != 0)) {
            return "a label does not fit";
        }
        display.tallies = control & TALLIES_5;
        display.brightness = control >> BRIGHTNESS_SHIFT_5 & BRIGHTNESS_MASK;
        display.label = Trimmed(unicode ? FromUtf16(data + at, length)
                                        : std::string(data + at, data + at + length));
        displays.push_back(display);
        at += length;
    }
    return {};
}

std::string Decode5(const uint8_t* data, size_t size, std::vector<Display>& displays) {
    if (size < HEADER_SIZE || size > TSL5_MAX_SIZE || Read16(data) != size - COUNT_SIZE) {
        return "its count of bytes is wrong";
    }
    if (data[2] != 0) {
        return "not version 5.0";
    }
    if ((data[3] & SCREEN_CONTROL_FLAG) != 0) {
        return {};
    }
    std::vector<Display> found;
    std::string problem = DecodeDisplays(data + HEADER_SIZE, size - HEADER_SIZE,
                                         (data[3] & UNICODE_FLAG) != 0, Read16(data + 4), found);
    if (problem.empty()) {
        displays.insert(displays.end(), found.begin(), found.end());
    }
    return problem;
}

std::string Encode5(const Display& display, bool unicode) {
    const size_t most = TSL5_MAX_SIZE - HEADER_SIZE - DISPLAY_SIZE;
    std::string label = unicode ? ToUtf16(display.label) : display.label;
    label.resize(std::min(label.size(), most));
    std::string out;
    Put16(out, display.index);
    Put16(out, static_cast<size_t>((display.tallies & TALLIES_5) |
                                   (display.brightness & BRIGHTNESS_MASK) << BRIGHTNESS_SHIFT_5));
    Put16(out, label.size());
    return out + label;
}

std::string Packet5(uint16_t screen, bool unicode, const std::string& displays) {
    std::string packet;
    Put16(packet, HEADER_SIZE - COUNT_SIZE + displays.size());
    packet += '\0';
    packet += static_cast<char>(unicode ? UNICODE_FLAG : 0);
    Put16(packet, screen);
    return packet + displays;
}

std::vector<std::string> EncodeAll5(const std::vector<Display>& displays) {
    const bool unicode = !std::all_of(displays.begin(), displays.end(),
                                      [](const Display& one) { return IsAscii(one.label); });
    std::vector<std::string> packets;
    std::string body;
    for (const Display& display : displays) {
        const std::string one = Encode5(display, unicode);
        if (HEADER_SIZE + body.size() + one.size() > TSL5_MAX_SIZE) {
            packets.push_back(Packet5(displays[0].screen, unicode, body));
            body.clear();
        }
        body += one;
    }
    if (!body.empty()) {
        packets.push_back(Packet5(displays[0].screen, unicode, body));
    }
    return packets;
}

}  // namespace

std::string DecodeTsl(TslVersion version, const uint8_t* data, size_t size,
                      std::vector<Display>& displays) {
    return version == TslVersion::V31 ? Decode31(data, size, displays)
                                      : Decode5(data, size, displays);
}

std::vector<std::string> EncodeTsl(const std::vector<Display>& displays) {
    if (displays.empty() || displays[0].version == TslVersion::V5) {
        return EncodeAll5(displays);
    }
    std::vector<std::string> packets;
    std::transform(displays.begin(), displays.end(), std::back_inserter(packets), Encode31);
    return packets;
}

std::string WrapTsl(TslVersion version, const std::string& packet) {
    if (version == TslVersion::V31) {
        return packet;
    }
    std::string wrapped = {static_cast<char>(DLE), static_cast<char>(STX)};
    for (const char c : packet) {
        wrapped += c;
        if (static_cast<uint8_t>(c) == DLE) {
            wrapped += c;
        }
    }
    return wrapped;
}

// ---- streams

void TslStream::Take(const uint8_t* data, size_t size,
                     const std::function<void(const uint8_t*, size_t)>& packet,
                     const std::function<void()>& lost) {
    for (const uint8_t* at = data; at < data + size; ++at) {
        if (m_version == TslVersion::V31 ? TakeByte31(*at, lost) : TakeByte5(*at, lost)) {
            packet(m_packet.data(), m_packet.size());
            m_packet.clear();
            m_state = State::Searching;
            m_told = false;
        }
    }
}

// Only the first byte of a message has its highest bit set. Returns whether a packet is complete.
bool TslStream::TakeByte31(uint8_t byte, const std::function<void()>& lost) {
    if (byte >= HEADER_31 && !m_packet.empty()) {
        Skip(lost);
    }
    if (byte < HEADER_31 && m_packet.empty()) {
        Skip(lost);
        return false;
    }
    m_packet.push_back(byte);
    return m_packet.size() == TSL31_SIZE;
}

bool TslStream::TakeByte5(uint8_t byte, const std::function<void()>& lost) {
    const bool is_dle = byte == DLE;
    switch (m_state) {
        case State::Searching:
            if (is_dle) {
                m_state = State::Begun;
            } else {
                Skip(lost);
            }
            return false;
        case State::Begun:
            if (byte == STX) {
                m_state = State::InPacket;
            } else if (!is_dle) {
                Skip(lost);
            }
            return false;
        case State::InPacket:
            if (is_dle) {
                m_state = State::AfterDle;
                return false;
            }
            return Append(byte, lost);
        case State::AfterDle:
            if (is_dle) {
                m_state = State::InPacket;
                return Append(byte, lost);
            }
            // The packet before was not complete: another begins here.
            Skip(lost);
            if (byte == STX) {
                m_state = State::InPacket;
            }
            return false;
    }
    return false;
}

bool TslStream::Append(uint8_t byte, const std::function<void()>& lost) {
    m_packet.push_back(byte);
    if (m_packet.size() < COUNT_SIZE) {
        return false;
    }
    const size_t whole = COUNT_SIZE + Read16(m_packet.data());
    if (whole > TSL5_MAX_SIZE) {
        Skip(lost);
        return false;
    }
    return m_packet.size() == whole;
}

void TslStream::Skip(const std::function<void()>& lost) {
    m_packet.clear();
    m_state = State::Searching;
    if (!m_told) {
        m_told = true;
        lost();
    }
}
