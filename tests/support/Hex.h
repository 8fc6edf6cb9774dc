// Bytes from hexadecimal texts.
#pragma once

#include <algorithm>
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
