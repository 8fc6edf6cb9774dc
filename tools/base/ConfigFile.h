// Configuration files with one setting per line.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

// A file that can't be read or has errors: "/etc/orvex/mqtt.conf:3: ...", one line for each error.
struct ConfigError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The words of a line, at least one. A word that begins with '#' begins a comment, which is not
// part of the line.
struct ConfigLine {
    int number = 0;    // counted from 1
    std::string text;  // as written, without blanks around it
    std::vector<std::string> words;
};

// The lines of a file that are not empty. Throws ConfigError if it can't be read.
std::vector<ConfigLine> ReadConfigLines(const std::string& file);

// The words of a line after the first, one after the other. Failures are thrown as
// std::invalid_argument with the reason.
class ConfigWords {
public:
    explicit ConfigWords(const std::vector<std::string>& words) : m_words(words) {}

    bool IsAtEnd() const { return m_next == m_words.size(); }

    // The next word, which is what; refused if there is none.
    const std::string& Next(const char* what);

    // The same; a text in double quotes may have blanks.
    std::string NextText(const char* what);

    // Takes the next word if it is that one.
    bool TakeIf(const char* word);

    // Refuses further words.
    void ExpectEnd() const;

private:
    const std::vector<std::string>& m_words;
    size_t m_next = 1;
};

// Collects errors of a file, so that all of them can be told at once.
class ConfigErrors {
public:
    explicit ConfigErrors(const std::string& file) : m_file(file) {}

    void Add(int line, const std::string& reason);

    // Runs the step; if it throws std::invalid_argument, adds that as an error of the line.
    void Try(int line, const std::function<void()>& step);

    // Throws a ConfigError with all of them, in the order of lines, if there are any.
    void ThrowIfAny() const;

private:
    const std::string m_file;
    std::vector<std::pair<int, std::string>> m_errors;
};
