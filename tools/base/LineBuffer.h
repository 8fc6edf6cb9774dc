// Splits a stream of bytes into text lines, and makes any bytes printable.
#pragma once

#include <cstddef>
#include <string>

// Splits a stream of bytes into lines. A line ends with CR, LF or a run of them; empty lines are
// skipped. Holds at most one line of MAX_LINE characters and what was appended last.
class LineBuffer {
public:
    static constexpr size_t MAX_LINE = 4096;

    enum class Result { Line, Incomplete, Overlong };

    void Append(const char* data, size_t size);

    // Moves the next complete line, without its end, to line. Overlong means that the next line has
    // more than MAX_LINE characters, complete or not: clear the buffer then.
    Result Next(std::string& line);

    // Empties the buffer and returns its content.
    std::string Clear();

private:
    std::string m_data;
    size_t m_read = 0;  // where the next line begins
};

// The text with every control character as \xNN. Longer texts are truncated and end with "...".
std::string Printable(const std::string& text);

// The same, also for every byte beyond ASCII: letters of other scripts can disguise a line.
std::string PrintableAscii(const std::string& text);
