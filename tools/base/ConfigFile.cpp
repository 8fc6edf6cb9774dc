#include "tools/base/ConfigFile.h"

#include <algorithm>
#include <utility>

#include "tools/base/OpenText.h"

namespace {

const char* const BLANKS = " \t\r\v\f";

ConfigLine SplitLine(const std::string& text, int number) {
    ConfigLine line;
    line.number = number;
    size_t begin = text.find_first_not_of(BLANKS);
    const size_t first = begin;
    while (begin != text.npos && text[begin] != '#') {
        const size_t end = std::min(text.find_first_of(BLANKS, begin), text.size());
        line.words.push_back(text.substr(begin, end - begin));
        line.text = text.substr(first, end - first);
        begin = text.find_first_not_of(BLANKS, end);
    }
    return line;
}

}  // namespace

std::vector<ConfigLine> ReadConfigLines(const std::string& file) {
    std::ifstream in = OpenText(file);
    std::vector<ConfigLine> lines;
    std::string text;
    for (int number = 1; std::getline(in, text); ++number) {
        ConfigLine line = SplitLine(text, number);
        if (!line.words.empty()) {
            lines.push_back(std::move(line));
        }
    }
    if (!in.eof()) {
        throw ConfigError(file + ": can't be read");
    }
    return lines;
}

const std::string& ConfigWords::Next(const char* what) {
    if (IsAtEnd()) {
        throw std::invalid_argument(m_words[m_next - 1] + " needs " + what);
    }
    return m_words[m_next++];
}

std::string ConfigWords::NextText(const char* what) {
    std::string text = Next(what);
    if (text[0] != '"') {
        return text;
    }
    while ((text.size() == 1 || text.back() != '"') && !IsAtEnd()) {
        text += " " + Next(what);
    }
    if (text.size() == 1 || text.back() != '"') {
        throw std::invalid_argument("no closing quote: " + text);
    }
    return text.substr(1, text.size() - 2);
}

bool ConfigWords::TakeIf(const char* word) {
    const bool is_it = !IsAtEnd() && m_words[m_next] == word;
    m_next += is_it ? 1 : 0;
    return is_it;
}

void ConfigWords::ExpectEnd() const {
    if (!IsAtEnd()) {
        throw std::invalid_argument("more than expected: " + m_words[m_next]);
    }
}

void ConfigErrors::Add(int line, const std::string& reason) {
    m_errors.emplace_back(line, reason);
}

void ConfigErrors::Try(int line, const std::function<void()>& step) {
    try {
        step();
    } catch (const std::invalid_argument& error) {
        Add(line, error.what());
    }
}

void ConfigErrors::ThrowIfAny() const {
    std::vector<std::pair<int, std::string>> errors = m_errors;
    std::stable_sort(errors.begin(), errors.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::string text;
    for (const auto& [line, reason] : errors) {
        text += (text.empty() ? "" : "\n") + m_file + ":" + std::to_string(line) + ": " + reason;
    }
    if (!text.empty()) {
        throw ConfigError(text);
    }
}
