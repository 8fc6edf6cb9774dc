// Reads names from their file.

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "tools/base/ErrorText.h"
#include "tools/base/OpenText.h"
#include "tools/bus/Escape.h"
#include "tools/bus/Names.h"

namespace {

const char* const DEFAULT_FILE = "/etc/orvex/names";
const char* const BLANKS = " \t\r";
const size_t MAX_ENTRIES = 100000;

[[noreturn]] void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

bool IsLetter(char c) {
    return isalpha(static_cast<unsigned char>(c)) != 0 || (c & 0x80) != 0;
}

bool IsNameCharacter(char c) {
    return IsLetter(c) || isdigit(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' ||
           c == '-';
}

// UTF-8 without control characters, including those of C1: nothing that a terminal would act on.
void CheckText(const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (c < 0x20 || c == 0x7F || (c == 0xC2 && next < 0xA0)) {
            Refuse("a control character");
        }
    }
    if (UnescapeBytes(EscapeBytes(text)) != text || EscapeBytes(text).find("\\x") != text.npos) {
        Refuse("not UTF-8");
    }
}

// Splits a line into words.
class LineReader {
public:
    explicit LineReader(const std::string& line) : m_line(line) { SkipBlanks(); }

    bool IsAtEnd() const { return m_pos >= m_line.size() || m_line[m_pos] == '#'; }

    std::string Word() {
        const size_t begin = m_pos;
        m_pos = std::min(m_line.find_first_of(BLANKS, m_pos), m_line.size());
        std::string word = m_line.substr(begin, m_pos - begin);
        SkipBlanks();
        return word;
    }

    std::string Quoted() {
        if (m_line[m_pos] != '"') {
            Refuse("the text is not in double quotes");
        }
        std::string text;
        for (++m_pos; m_pos < m_line.size() && m_line[m_pos] != '"'; ++m_pos) {
            m_pos += m_line[m_pos] == '\\' && m_pos + 1 < m_line.size() ? 1 : 0;
            text.push_back(m_line[m_pos]);
        }
        if (m_pos >= m_line.size()) {
            Refuse("the text has no closing quote");
        }
        ++m_pos;
        SkipBlanks();
        return text;
    }

private:
    void SkipBlanks() { m_pos = std::min(m_line.find_first_not_of(BLANKS, m_pos), m_line.size()); }

    const std::string& m_line;
    size_t m_pos = 0;
};

void CheckName(const std::string& name) {
    if (name.empty()) {
        Refuse("no name");
    }
    for (const char c : name) {
        if (!IsNameCharacter(c)) {
            Refuse("a name has letters, digits, '.', '_' and '-': " + EscapeBytes(name));
        }
    }
    if (!IsLetter(name[0])) {
        Refuse("a name begins with a letter: " + name);
    }
    if (IsPinName(name)) {
        Refuse("every address has a pin of this name: " + name);
    }
    CheckText(name);
}

// None if the line has no name.
std::optional<Names::Entry> ParseLine(const std::string& line) {
    LineReader words(line);
    if (words.IsAtEnd()) {
        return std::nullopt;
    }
    Names::Entry entry;
    entry.pins = ParsePinRef(words.Word());
    entry.name = words.Word();
    CheckName(entry.name);
    if (!words.IsAtEnd()) {
        entry.text = words.Quoted();
        CheckText(entry.text);
    }
    if (!words.IsAtEnd()) {
        Refuse("more after the text");
    }
    return entry;
}

}  // namespace

Names Names::Read(const std::string& file) {
    Names names;
    names.m_file = file;
    errno = 0;
    std::ifstream in = OpenText(file);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        try {
            if (const std::optional<Entry> entry = ParseLine(line)) {
                if (names.m_entries.size() >= MAX_ENTRIES) {
                    Refuse("more than " + std::to_string(MAX_ENTRIES) + " names");
                }
                names.Add(*entry);
            }
        } catch (const std::invalid_argument& error) {
            throw NamesError(file + ":" + std::to_string(number) + ": " + error.what());
        }
    }
    if (in.bad() || !in.eof()) {
        throw NamesError("can't read " + file + ": " + ErrorText(errno));
    }
    return names;
}

Names Names::Load(const std::string& file) {
    const char* const environment = getenv("ORVEX_NAMES");
    if (!file.empty()) {
        return Read(file);
    }
    if (environment != nullptr && *environment != '\0') {
        return Read(environment);
    }
    return access(DEFAULT_FILE, R_OK) == 0 ? Read(DEFAULT_FILE) : Names();
}
