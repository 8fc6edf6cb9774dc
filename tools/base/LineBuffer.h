// From a stream of bytes to text lines, and from any bytes to text that a terminal can show.
#pragma once

#include <cstddef>
#include <string>

// Cuts a stream of bytes into lines. A line ends with CR, LF or a run of them; empty lines are
// skipped. Holds no more than one line of MAX_LINE characters and what was appended last.
class LineBuffer {
public:
    static constexpr size_t MAX_LINE = 4096;

    enum class Result { Line, Incomplete, Overlong };

    void Append(const char* data, size_t size);

    // Takes the next complete line, without its end, into line. Overlong means that the next line
    // has more than MAX_LINE characters, whether or not its end is there: the buffer is of no use
    // any more until it is cleared.
    Result Next(std::string& line);

    // Forgets what it holds and returns it.
    std::string Clear();

private:
    std::string m_data;
    size_t m_read = 0;  // where the next line begins
};

// The text with every control character as \xNN. Longer texts are cut and end with "...".
std::string Printable(const std::string& text);
