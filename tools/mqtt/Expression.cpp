#include "tools/mqtt/Expression.h"

#include <algorithm>
#include <cctype>

#include "tools/mqtt/ConfigValues.h"

namespace {

const size_t MOST_PINS = 16;
const int DEEPEST = 8;

std::vector<std::string> WordsOf(const std::string& text) {
    std::vector<std::string> words;
    bool is_open = false;  // the last word may go on
    for (const char c : text) {
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            is_open = false;
        } else if (c == '(' || c == ')' || c == ',') {
            words.emplace_back(1, c);
            is_open = false;
        } else if (is_open) {
            words.back() += c;
        } else {
            words.emplace_back(1, c);
            is_open = true;
        }
    }
    return words;
}

class Parser {
public:
    Parser(const std::string& text, const std::function<SitePin(const std::string&)>& parse_pin)
        : m_words(WordsOf(text)), m_parse_pin(parse_pin) {}

    Expression Run() {
        Expression expression = Parse(0);
        if (m_next < m_words.size()) {
            Refuse("not expected here: " + m_words[m_next]);
        }
        return expression;
    }

private:
    Expression Parse(int depth);
    Expression ParsePin(const std::string& text);
    void ParseParts(Expression& expression, int depth);
    std::string Take();
    bool TakeIf(const char* word);
    void Expect(const char* word);

    const std::vector<std::string> m_words;
    const std::function<SitePin(const std::string&)>& m_parse_pin;
    size_t m_next = 0;
    size_t m_pins = 0;
};

Expression Parser::Parse(int depth) {
    if (depth > DEEPEST) {
        Refuse("nested too deeply");
    }
    const std::string word = Take();
    Expression expression;
    if (word == "not") {
        expression.kind = Expression::Kind::Not;
        expression.parts.push_back(Parse(depth + 1));
    } else if (word == "any" || word == "all") {
        ParseParts(expression, depth);
        expression.least = word == "any" ? 1 : expression.parts.size();
    } else if (TakeIf("of")) {
        ParseParts(expression, depth);
        const size_t count = expression.parts.size();
        const bool is_number =
            word.size() <= 2 &&
            std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
        expression.least = is_number ? std::stoul(word) : 0;
        if (expression.least < 1 || expression.least > count) {
            Refuse("not a number from 1 to " + std::to_string(count) + ": " + word);
        }
    } else {
        return ParsePin(word);
    }
    return expression;
}

Expression Parser::ParsePin(const std::string& text) {
    Expression expression;
    expression.pin = m_parse_pin(text);
    if (TakeIf("lost")) {
        expression.when_lost = ParseLevel(Take());
    }
    if (++m_pins > MOST_PINS) {
        Refuse("more than " + std::to_string(MOST_PINS) + " pins");
    }
    return expression;
}

void Parser::ParseParts(Expression& expression, int depth) {
    expression.kind = Expression::Kind::AtLeast;
    Expect("(");
    do {
        expression.parts.push_back(Parse(depth + 1));
    } while (TakeIf(","));
    Expect(")");
}

std::string Parser::Take() {
    if (m_next == m_words.size()) {
        Refuse("something is missing at the end");
    }
    return m_words[m_next++];
}

bool Parser::TakeIf(const char* word) {
    const bool is_next = m_next < m_words.size() && m_words[m_next] == word;
    m_next += is_next;
    return is_next;
}

void Parser::Expect(const char* word) {
    if (!TakeIf(word)) {
        Refuse(std::string("no ") + word + " before " +
               (m_next < m_words.size() ? m_words[m_next] : "the end"));
    }
}

}  // namespace

Level Opposite(Level level) {
    return level == Level::Low ? Level::High : Level::Low;
}

std::optional<Level> Expression::Value(const Levels& level_of) const {
    if (kind == Kind::Pin) {
        return level_of(*this);
    }
    if (kind == Kind::Not) {
        const std::optional<Level> value = parts[0].Value(level_of);
        return value ? std::optional<Level>(Opposite(*value)) : std::nullopt;
    }
    size_t low = 0;
    size_t unknown = 0;
    for (const Expression& part : parts) {
        const std::optional<Level> value = part.Value(level_of);
        low += value == Level::Low;
        unknown += !value;
    }
    if (low >= least) {
        return Level::Low;
    }
    return low + unknown < least ? std::optional<Level>(Level::High) : std::nullopt;
}

void Expression::ForEachPin(const std::function<void(const Expression& pin)>& visit) const {
    if (kind == Kind::Pin) {
        visit(*this);
    }
    for (const Expression& part : parts) {
        part.ForEachPin(visit);
    }
}

std::string Expression::Text() const {
    if (kind == Kind::Pin) {
        return pin.Text() + (when_lost ? std::string(" lost ") + LevelLetter(*when_lost) : "");
    }
    if (kind == Kind::Not) {
        return "not " + parts[0].Text();
    }
    std::string list;
    for (const Expression& part : parts) {
        list += (list.empty() ? "" : ", ") + part.Text();
    }
    const std::string word = least == 1              ? "any"
                             : least == parts.size() ? "all"
                                                     : std::to_string(least) + " of ";
    return word + "(" + list + ")";
}

Expression ParseExpression(const std::string& text,
                           const std::function<SitePin(const std::string&)>& parse_pin) {
    return Parser(text, parse_pin).Run();
}
