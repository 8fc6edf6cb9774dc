// What is written to a pin, in one byte: a level and for how long.
#pragma once

#include <cstdint>
#include <string>

enum class Level : uint8_t { High, Low };

// "L" or "H"
const char* LevelLetter(Level level);

// "L", "l" or "low", "H", "h" or "high". Throws std::invalid_argument with the reason.
Level ParseLevel(const std::string& text);

// The byte carries a count of 0 to 31 steps of 10 or of 250 ms: the durations 10 to 310 ms and 250
// to 7750 ms, and 0 for no limit.
class WriteValue {
public:
    explicit WriteValue(uint8_t byte) : m_byte(byte) {}

    // The nearest duration that there is, the longer one of two equally near. A limit stays a
    // limit: 1 ms becomes 10, not 0.
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
    unsigned long duration_ms;  // as it was asked for
};

// "ADDRESS:PIN=LEVEL" or "NAME=LEVEL", with ",DURATION" in ms. Throws std::invalid_argument with
// the reason.
PinWrite ParsePinWrite(const std::string& text, const Names& names);
