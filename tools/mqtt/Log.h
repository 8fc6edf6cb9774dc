// What the program tells, as lines that nobody can make many of.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "tools/base/Time.h"

// Peers choose what it tells, and how often: a text is printed at most once a second, with a count
// of how often it came in between, and only some texts a second. Everything but printable ASCII is
// escaped.
class Log {
public:
    explicit Log(std::function<void(const std::string&)> print);

    void Tell(const std::string& text);

    // Prints the counts that are due. Call it at least once a second.
    void Tend();

private:
    const std::function<void(const std::string&)> m_print;
    TimePoint m_end{};  // of the second
    std::map<std::string, unsigned long>
        m_texts;                 // of this second: how often they were not printed
    unsigned long m_others = 0;  // that were not printed at all
};
