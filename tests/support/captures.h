// Bytes from hexadecimal texts, and from the captures in docs/protocol.md.
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

// The bytes of the table after "<!-- capture NAME -->", with rows of offset, bytes and meaning.
// Fails the test if there is none, or if an offset is not the number of bytes before it.
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
