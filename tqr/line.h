// Builds control lines, and other short texts with numbers, in a buffer.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>

// write_line(buf, "GPO ", 5, " LHHHH", "\n") writes the texts and decimal numbers one after the
// other into the array, and a NUL. Truncates what does not fit. No text may be in the array itself.
template <size_t Size, class... Parts>
void write_line(char (&buf)[Size], const Parts&... parts);

// ---- implementation

// Append at to, with room up to end, and return the end of what was written.
inline char* append_to_line(char* to, const char* end, const char* chars, size_t count) {
    const size_t room = static_cast<size_t>(end - to);
    if (count > room) {
        memcpy(to, chars, room);
        return to + room;
    }
    memcpy(to, chars, count);
    return to + count;
}

inline char* append_to_line(char* to, const char* end, const char* text) {
    return append_to_line(to, end, text, strlen(text));
}

inline char* append_to_line(char* to, const char* end, int number) {
    char digits[11];
    const char* const behind = std::to_chars(digits, digits + sizeof digits, number).ptr;
    return append_to_line(to, end, digits, static_cast<size_t>(behind - digits));
}

template <size_t Size, class... Parts>
void write_line(char (&buf)[Size], const Parts&... parts) {
    char* to = buf;
    ((to = append_to_line(to, buf + Size - 1, parts)), ...);
    *to = '\0';
}
