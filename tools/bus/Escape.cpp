#include "tools/bus/Escape.h"

#include <cctype>
#include <cstdint>
#include <cstdio>

namespace {

unsigned int ByteAt(const std::string& bytes, size_t pos) {
    return pos < bytes.size() ? static_cast<unsigned char>(bytes[pos]) : 0;
}

// The length of the UTF-8 character at pos; 0 if there is none.
size_t CharacterLength(const std::string& bytes, size_t pos) {
    const unsigned int first = ByteAt(bytes, pos);
    if (first < 0x80) {
        return 1;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    uint32_t character = first & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        const unsigned int next = ByteAt(bytes, pos + i);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        character = character << 6 | (next & 0x3F);
    }
    // No first byte below C0 or above F7; only the shortest form; no surrogates; up to Unicode's
    // end.
    static const uint32_t SHORTEST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool valid = first >= 0xC0 && first < 0xF8 && character >= SHORTEST[length] &&
                       (character < 0xD800 || character > 0xDFFF) && character <= 0x10FFFF;
    return valid ? length : 0;
}

bool IsHexEscape(const std::string& text, size_t pos) {
    return text.compare(pos, 2, "\\x") == 0 && pos + 3 < text.size() &&
           isxdigit(static_cast<unsigned char>(text[pos + 2])) != 0 &&
           isxdigit(static_cast<unsigned char>(text[pos + 3])) != 0;
}

}  // namespace

std::string EscapeBytes(const std::string& bytes) {
    std::string text;
    for (size_t pos = 0; pos < bytes.size();) {
        const size_t length = CharacterLength(bytes, pos);
        if (length == 0) {
            char escape[8];
            snprintf(escape, sizeof escape, "\\x%02X", ByteAt(bytes, pos));
            text += escape;
            ++pos;
            continue;
        }
        text += bytes[pos] == '\\' ? "\\\\" : bytes.substr(pos, length);
        pos += length;
    }
    return text;
}

std::string UnescapeBytes(const std::string& text) {
    std::string bytes;
    for (size_t pos = 0; pos < text.size();) {
        if (IsHexEscape(text, pos)) {
            bytes.push_back(static_cast<char>(std::stoi(text.substr(pos + 2, 2), nullptr, 16)));
            pos += 4;
        } else {
            pos += text.compare(pos, 2, "\\\\") == 0 ? 1 : 0;
            bytes.push_back(text[pos++]);
        }
    }
    return bytes;
}
