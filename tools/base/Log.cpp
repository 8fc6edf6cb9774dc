#include "tools/base/Log.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <utility>

#include "tools/base/LineBuffer.h"

namespace {

const double PERIOD = 1;  // seconds

}  // namespace

Log::Log(size_t most_lines, Print print) : m_most_lines(most_lines), m_print(std::move(print)) {}

void Log::PrintLine(const std::string& line) {
    printf("%s\n", line.c_str());
}

void Log::Tell(const std::string& text) {
    Tend();
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        TellLine(PrintableAscii(line));
    }
}

void Log::TellLine(const std::string& line) {
    const auto known = m_lines.find(line);
    if (known != m_lines.end()) {
        ++known->second;
    } else if (m_lines.size() == m_most_lines) {
        ++m_others;
    } else {
        m_lines[line] = 0;
        m_print(line);
    }
}

TimePoint Log::NextTime() const {
    const bool has_more =
        m_others > 0 || std::any_of(m_lines.begin(), m_lines.end(),
                                    [](const auto& line) { return line.second > 0; });
    return has_more ? m_end : TimePoint::max();
}

// A line that was repeated is not printed anew for another second.
void Log::Tend() {
    if (Now() < m_end) {
        return;
    }
    m_end = After(PERIOD);
    std::map<std::string, unsigned long> repeated;
    for (const auto& [line, count] : std::exchange(m_lines, {})) {
        if (count > 0) {
            m_print(line + " (" + std::to_string(count) + " times more)");
            repeated[line] = 0;
        }
    }
    m_lines = std::move(repeated);
    if (const unsigned long count = std::exchange(m_others, 0)) {
        m_print(std::to_string(count) + " more messages were left out");
    }
}
