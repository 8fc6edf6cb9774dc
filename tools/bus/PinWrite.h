// The byte that is written to a pin: a level and a duration.
#pragma once

#include <cstdint>
#include <string>

enum class Level : uint8_t { High, Low };

// "L" or "H"
const char* LevelLetter(Level level);

// "L", "l" or "low", "H", "h" or "high". Throws std::invalid_argument with the reason.
Level ParseLevel(const std::string& text);

// The byte contains a count of 0 to 31 steps of 10 or 250 ms: durations of 10 to 310 ms and 250 to
// 7750 ms, and 0 for no limit.
class WriteValue {
public:
    explicit WriteValue(uint8_t byte) : m_byte(byte) {}

    // The nearest possible duration, the longer of two equally near ones. A limit stays a limit: 1
    // ms becomes 10, not 0.
    WriteValue(Level level, unsigned long duration_ms);

    uint8_t Byte() const { return m_byte; }
    Level GetLevel() const;
    unsigned int Duration() const;  // in ms, 0: no limit

private:
    uint8_t m_byte;
};

class Names;

struct PinWrite {
    uint32_t tag;
    WriteValue value;
    unsigned long duration_ms;  // as requested
};

// "ADDRESS:PIN=LEVEL" or "NAME=LEVEL", with ",DURATION" in ms. Throws std::invalid_argument with
// the reason.
PinWrite ParsePinWrite(const std::string& text, const Names& names);
