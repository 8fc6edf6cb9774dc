// The captures of docs/protocol.md: what is documented there is what the tests compare with.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>

// The bytes of the table behind "<!-- capture NAME -->", whose rows are "| offset | bytes | meaning
// |". Fails the test when there is none or an offset isn't the number of the bytes before it.
inline std::string read_capture(const std::string& name) {
    std::ifstream doc(ORVEX_PROTOCOL_DOC);
    std::string line;
    while (std::getline(doc, line) && line != "<!-- capture " + name + " -->") {
    }
    std::string bytes;
    while (std::getline(doc, line) && (line.empty() || line[0] == '|')) {
        std::istringstream row(line);
        std::string bar, offset, byte;
        if (!(row >> bar >> offset) || isdigit(static_cast<unsigned char>(offset[0])) == 0) {
            continue;  // a blank line or the table's head
        }
        EXPECT_EQ(offset, std::to_string(bytes.size())) << name;
        row >> bar;
        while (row >> byte && byte != "|") {
            bytes.push_back(static_cast<char>(std::stoul(byte, nullptr, 16)));
        }
    }
    EXPECT_FALSE(bytes.empty()) << "no capture " << name;
    return bytes;
}
