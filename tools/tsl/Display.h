// What a switcher says about one picture.
#pragma once

#include <cstdint>
#include <string>

// Of the protocol: 3.1 has addresses and four tallies, 5.0 has screens and three lamps with
// colours.
enum class TslVersion : uint8_t { V31, V5 };

const char* VersionName(TslVersion version);  // "v3.1" or "v5"

// A state of a display, as far as it is the same in both versions.
struct Display {
    static constexpr uint16_t ALL = 0xFFFF;  // every screen, or every display of a screen; 5.0 only
    static constexpr uint8_t BRIGHTEST = 3;

    // Bits of tallies in 3.1: TALLY_1, its double for the second, and so on.
    static constexpr uint8_t TALLY_1 = 0x01;
    static constexpr int TALLY_COUNT = 4;
    // In 5.0 each lamp has two bits, for red and green. Amber is both.
    static constexpr uint8_t RED = 0x01;
    static constexpr uint8_t GREEN = 0x02;
    static constexpr uint8_t AMBER = RED | GREEN;
    static constexpr int RIGHT = 0;  // where the bits of a lamp begin
    static constexpr int TEXT = 2;
    static constexpr int LEFT = 4;

    TslVersion version = TslVersion::V31;
    uint16_t screen = 0;
    uint16_t index = 0;  // in 3.1 the address, 0 to 126
    uint8_t tallies = 0;
    uint8_t brightness = BRIGHTEST;  // 0 to 3
    std::string label;               // UTF-8 if the sender keeps to the protocol; without padding

    // Whether the other display has the same place, which ALL never has.
    bool IsSamePlace(const Display& other) const {
        return version == other.version && screen == other.screen && index == other.index;
    }
};

// "off", "red", "green" or "amber": of the lowest two bits.
const char* ColourName(int bits);

// "v5 screen 1 index 4: left off, text off, right red, brightness 3, "CAM 4"", with unprintable
// characters escaped.
std::string DescribeDisplay(const Display& display);
