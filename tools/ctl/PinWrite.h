// What is written to a pin, in one byte: a level and for how long.
#pragma once

#include <cstdint>
#include <string>

// The byte carries a count of 0 to 31 steps of 10 or of 250 ms: the durations 10 to 310 ms and 250
// to 7750 ms, and 0 for no limit.
class WriteValue {
public:
    explicit WriteValue(uint8_t byte) : m_byte(byte) {}

    // The nearest duration that there is, the longer one of two equally near. A limit stays a
    // limit: 1 ms becomes 10, not 0.
    WriteValue(bool low, unsigned long duration_ms);

    uint8_t Byte() const { return m_byte; }
    bool IsLow() const;
    unsigned int Duration() const;  // in ms, 0: no limit

private:
    uint8_t m_byte;
};

struct PinWrite {
    uint32_t tag;
    WriteValue value;
    unsigned long duration_ms;  // as it was asked for
};

// "ADDRESS:PIN=L" or "=H", with ",DURATION" in ms. Throws std::invalid_argument with the reason.
PinWrite ParsePinWrite(const std::string& text);
