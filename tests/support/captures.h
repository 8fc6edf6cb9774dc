// Bytes from texts: hexadecimal ones, and the captures of docs/protocol.md for comparison.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>
#include <string>

// Bytes written as hexadecimal digits; blanks don't count.
inline std::string Hex(std::string digits) {
    digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
    std::string bytes;
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

// The bytes of the table behind "<!-- capture NAME -->", whose rows are "| offset | bytes | meaning
// |". Fails the test when there is none or an offset isn't the number of the bytes before it.
inline std::string ReadCapture(const std::string& name) {
    std::ifstream doc(ORVEX_PROTOCOL_DOC);
    std::string line;
    while (std::getline(doc, line) && line != "<!-- capture " + name + " -->") {
    }
    std::string bytes;
    while (std::getline(doc, line) && (line.empty() || line[0] == '|')) {
        std::istringstream row(line);
        std::string bar, offset;
        if (row >> bar >> offset && isdigit(static_cast<unsigned char>(offset[0])) != 0) {
            EXPECT_EQ(offset, std::to_string(bytes.size())) << name;
            std::string digits;
            row >> bar;
            std::getline(row, digits, '|');
            bytes += Hex(digits);
        }
    }
    EXPECT_FALSE(bytes.empty()) << "no capture " << name;
    return bytes;
}
