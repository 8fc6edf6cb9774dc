// Inputs of several parts. A part ends at "%%", so that seeds can be written by hand, and a fuzzer
// that inserts or removes bytes leaves the other parts unchanged.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

inline std::vector<std::string> split_script(const uint8_t* data, size_t size) {
    const std::string script(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = script.find("%%", start)) != std::string::npos; start = end + 2) {
        parts.push_back(script.substr(start, end - start));
    }
    parts.push_back(script.substr(start));
    return parts;
}
