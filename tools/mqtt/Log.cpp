#include "tools/mqtt/Log.h"

#include <cstdio>
#include <utility>

namespace {

const double PERIOD = 1;       // seconds
const size_t MOST_TEXTS = 20;  // in a period
const size_t LONGEST = 400;    // characters

std::string Escaped(const std::string& text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (shown.size() >= LONGEST) {
            return shown + "...";
        }
        if (byte >= 0x20 && byte < 0x7F) {
            shown += c;
            continue;
        }
        char code[8];
        snprintf(code, sizeof code, "\\x%02X", byte);
        shown += code;
    }
    return shown;
}

}  // namespace

Log::Log(std::function<void(const std::string&)> print) : m_print(std::move(print)) {}

void Log::Tell(const std::string& text) {
    Tend();
    const std::string shown = Escaped(text);
    const auto known = m_texts.find(shown);
    if (known != m_texts.end()) {
        ++known->second;
    } else if (m_texts.size() == MOST_TEXTS) {
        ++m_others;
    } else {
        m_texts[shown] = 0;
        m_print(shown);
    }
}

// A text that was repeated is not printed anew for another second.
void Log::Tend() {
    if (Now() < m_end) {
        return;
    }
    m_end = After(PERIOD);
    std::map<std::string, unsigned long> repeated;
    for (const auto& [text, count] : std::exchange(m_texts, {})) {
        if (count > 0) {
            m_print(text + " (" + std::to_string(count) + " times more)");
            repeated[text] = 0;
        }
    }
    m_texts = std::move(repeated);
    if (const unsigned long count = std::exchange(m_others, 0)) {
        m_print(std::to_string(count) + " more messages were left out");
    }
}
