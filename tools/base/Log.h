// What the program tells, as lines that nobody can make many of.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "tools/base/Time.h"

// Peers choose what it tells, and how often: a line is printed at most once a second, with a count
// of how often it came in between, and only so many lines a second, as PrintableAscii() shows them.
class Log {
public:
    using Print = std::function<void(const std::string& line)>;

    // Prints to standard output unless told otherwise, and at most that many different lines a
    // second.
    explicit Log(size_t most_lines, Print print = PrintLine);

    // One or more lines.
    void Tell(const std::string& text);

    // Prints the counts that are due. Call it when NextTime() has come.
    void Tend();

    // TimePoint::max() if nothing has been left out.
    TimePoint NextTime() const;

private:
    static void PrintLine(const std::string& line);
    void TellLine(const std::string& line);

    const size_t m_most_lines;
    const Print m_print;
    TimePoint m_end{};  // of the second
    // Lines of this second: how often they were not printed.
    std::map<std::string, unsigned long> m_lines;
    unsigned long m_others = 0;  // that were not printed at all
};
