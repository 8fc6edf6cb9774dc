#include "tools/tsl/Display.h"

#include "tools/base/LineBuffer.h"

const char* VersionName(TslVersion version) {
    return version == TslVersion::V31 ? "v3.1" : "v5";
}

const char* ColourName(int bits) {
    const char* const names[] = {"off", "red", "green", "amber"};
    return names[bits & Display::AMBER];
}

std::string DescribeDisplay(const Display& display) {
    const auto place = [](uint16_t number) {
        return number == Display::ALL ? std::string("all") : std::to_string(number);
    };
    std::string text = VersionName(display.version);
    if (display.version == TslVersion::V31) {
        text += " display " + std::to_string(display.index) + ": ";
        for (int i = 0; i < Display::TALLY_COUNT; ++i) {
            const bool on = (display.tallies >> i & Display::TALLY_1) != 0;
            text += "tally" + std::to_string(i + 1) + (on ? " on, " : " off, ");
        }
    } else {
        text += " screen " + place(display.screen) + " index " + place(display.index) + ": left " +
                ColourName(display.tallies >> Display::LEFT) + ", text " +
                ColourName(display.tallies >> Display::TEXT) + ", right " +
                ColourName(display.tallies >> Display::RIGHT) + ", ";
    }
    return text + "brightness " + std::to_string(display.brightness) + ", \"" +
           Printable(display.label) + "\"";
}
