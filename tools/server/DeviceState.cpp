#include "tools/server/DeviceState.h"

#include <algorithm>
#include <climits>
#include <string_view>

#include "tools/base/LineBuffer.h"
#include "tqr/tqr_util.h"

// Reads a line word by word.
class LineWords {
public:
    explicit LineWords(const std::string& line) : m_line(line) { SkipBlanks(); }

    // The next word, empty at the end of the line.
    std::string Next() {
        const size_t end = std::min(m_line.find(' ', m_pos), m_line.size());
        std::string word = m_line.substr(m_pos, end - m_pos);
        m_pos = end;
        SkipBlanks();
        return word;
    }

    // The unread rest.
    std::string Rest() const { return m_line.substr(m_pos); }

    bool AtEnd() const { return m_pos == m_line.size(); }

private:
    void SkipBlanks() { m_pos = std::min(m_line.find_first_not_of(' ', m_pos), m_line.size()); }

    const std::string& m_line;
    size_t m_pos = 0;
};

namespace {

const char* const ALL_HIGH = "HHHHH";
const std::string_view DURATION_TAG = "DURATION:";

bool ParseNumber(const std::string& word, int low, int high, int& number) {
    const char* end = nullptr;
    const long value = tqr_strtol(word.c_str(), &end, 0);
    number = static_cast<int>(value);
    return !word.empty() && *end == '\0' && value >= low && value <= high;
}

bool ParseDuration(const std::string& word, int& milliseconds) {
    return word.compare(0, DURATION_TAG.size(), DURATION_TAG) == 0 &&
           ParseNumber(word.substr(DURATION_TAG.size()), 0, INT_MAX, milliseconds);
}

std::string NumberError(const char* what, int high) {
    return std::string(what) + " number is not 1 to " + std::to_string(high);
}

bool IsState(const std::string& text) {
    return !text.empty() && text.size() <= DeviceState::PINS &&
           text.find_first_not_of("HLhlx") == std::string::npos;
}

const char* const NO_TEXT_ERROR = "control characters, or too long";
const char* const STATE_ERROR = "state is not one to five of H, L, h, l and x";
const char* const TRAILING_ERROR = "more on the line than expected";

std::string FirstTag(const std::string& settings) {
    return settings.substr(0, settings.find_first_of("=:"));
}

bool IsText(const std::string& line) {
    return line.size() <= LineBuffer::MAX_LINE &&
           std::none_of(line.begin(), line.end(),
                        [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

std::string Refusal(const std::string& line, const std::string& reason) {
    return reason.empty() ? reason
                          : "line not understood: " + Printable(line) + " (" + reason + ")";
}

}  // namespace

DeviceState::DeviceState()
    : m_inputs(INPUTS + 1, ALL_HIGH),
      m_outputs(OUTPUTS + 1, Output{ALL_HIGH, {}, ~std::bitset<PINS>()}) {}

LineEffect DeviceState::Apply(const std::string& line, Clock::time_point now) {
    LineEffect effect;
    LineWords words(line);
    const std::string verb = words.Next();
    std::string reason = "not a SET, CFG GPO, GPI or GPO line";
    if (!IsText(line)) {
        reason = NO_TEXT_ERROR;
    } else if (verb == "GPI") {
        reason = SetInput(words, effect);
    } else if (verb == "GPO") {
        reason = SetOutput(words, now, effect);
    } else if (verb == "CFG") {
        reason = Configure(words, line, effect);
    } else if (verb == "SET") {
        reason = ChangeSetting(words, line, effect);
    }
    effect.error = Refusal(line, reason);
    return effect;
}

LineEffect DeviceState::Request(const std::string& line, Clock::time_point now) {
    LineEffect effect;
    LineWords words(line);
    const std::string verb = words.Next();
    std::string reason = "not a SET, CFG GPO, ADD GPI, DEL GPI or GPO line";
    if (!IsText(line)) {
        reason = NO_TEXT_ERROR;
    } else if (verb == "GPO") {
        reason = SetOutput(words, now, effect);
    } else if (verb == "ADD" || verb == "DEL") {
        reason = Subscribe(words, verb == "ADD", effect);
    } else if (verb == "CFG") {
        reason = AnswerConfiguration(words, effect);
    } else if (verb == "SET" && words.AtEnd()) {
        reason.clear();
        effect.answers = m_settings;
    }
    effect.error = Refusal(line, reason);
    return effect;
}

std::string DeviceState::SetInput(LineWords& words, LineEffect& effect) {
    int number = 0;
    if (!ParseNumber(words.Next(), 1, INPUTS, number)) {
        return NumberError("GPI", INPUTS);
    }
    const std::string state = words.Next();
    if (!IsState(state)) {
        return STATE_ERROR;
    }
    if (!words.AtEnd()) {
        return TRAILING_ERROR;
    }
    std::string& pins = m_inputs[static_cast<size_t>(number)];
    const std::string before = pins;
    for (size_t pin = 0; pin < state.size(); ++pin) {
        pins[pin] = state[pin] == 'x' ? pins[pin] : state[pin];
    }
    effect.changed_input = pins != before ? number : 0;
    return {};
}

std::string DeviceState::SetOutput(LineWords& words, Clock::time_point now, LineEffect& effect) {
    int number = 0;
    if (!ParseNumber(words.Next(), 1, OUTPUTS, number)) {
        return NumberError("GPO", OUTPUTS);
    }
    const std::string state = words.Next();
    if (!IsState(state)) {
        return STATE_ERROR;
    }
    int duration = 0;
    if (!words.AtEnd() && !ParseDuration(words.Next(), duration)) {
        return "the state is not followed by DURATION:milliseconds";
    }
    if (!words.AtEnd()) {
        return TRAILING_ERROR;
    }
    Output& output = m_outputs[static_cast<size_t>(number)];
    const std::string before = output.pins;
    for (size_t pin = 0; pin < state.size(); ++pin) {
        if (state[pin] != 'x' && output.present[pin]) {
            SetPin(output, pin, state[pin], duration, now);
        }
    }
    effect.changed_output = output.pins != before ? number : 0;
    return {};
}

void DeviceState::SetPin(Output& output, size_t pin, char state, int duration,
                         Clock::time_point now) {
    std::optional<Pulse>& pulse = output.pulses[pin];
    if (duration == 0) {
        pulse.reset();
    } else {
        const char restore = pulse ? pulse->restore : output.pins[pin];
        pulse = Pulse{restore, now + std::chrono::milliseconds(duration)};
    }
    output.pins[pin] = state;
}

std::string DeviceState::Configure(LineWords& words, const std::string& line, LineEffect& effect) {
    int number = 0;
    if (words.Next() != "GPO") {
        return "only GPOs have a configuration";
    }
    if (!ParseNumber(words.Next(), 1, OUTPUTS, number)) {
        return NumberError("GPO", OUTPUTS);
    }
    if (words.AtEnd()) {
        return "no fields";
    }
    std::string& known = m_configuration[number];
    if (known != line) {
        known = line;
        effect.broadcast.push_back(line);
    }
    return {};
}

// cppcheck-suppress constParameter; all handlers of lines have one signature
std::string DeviceState::ChangeSetting(LineWords& words, const std::string& line,
                                       LineEffect& effect) {
    if (words.AtEnd()) {
        return "no fields";
    }
    if (std::find(m_settings.begin(), m_settings.end(), line) != m_settings.end()) {
        return {};
    }
    const std::string tag = FirstTag(words.Rest());
    const auto has_tag = [&tag](const std::string& known) {
        LineWords knownWords(known);
        knownWords.Next();
        return FirstTag(knownWords.Rest()) == tag;
    };
    m_settings.erase(std::remove_if(m_settings.begin(), m_settings.end(), has_tag),
                     m_settings.end());
    m_settings.push_back(line);
    effect.broadcast.push_back(line);
    return {};
}

std::string DeviceState::AnswerConfiguration(LineWords& words, LineEffect& effect) const {
    if (words.Next() != "GPO" || !words.AtEnd()) {
        return "only CFG GPO can be asked for";
    }
    effect.asked_configuration = true;
    for (const auto& entry : m_configuration) {
        effect.answers.push_back(entry.second);
    }
    return {};
}

std::string DeviceState::Subscribe(LineWords& words, bool on, LineEffect& effect) const {
    int number = 0;
    if (words.Next() != "GPI") {
        return "only GPIs can be subscribed to";
    }
    if (!ParseNumber(words.Next(), 1, INPUTS, number)) {
        return NumberError("GPI", INPUTS);
    }
    if (!words.AtEnd()) {
        return TRAILING_ERROR;
    }
    if (on) {
        effect.subscribe = number;
        effect.answers.push_back(InputLine(number));
    } else {
        effect.unsubscribe = number;
    }
    return {};
}

std::vector<int> DeviceState::Expire(Clock::time_point now) {
    std::vector<int> changed;
    for (int number = 1; number <= OUTPUTS; ++number) {
        Output& output = m_outputs[static_cast<size_t>(number)];
        const std::string before = output.pins;
        for (size_t pin = 0; pin < output.pulses.size(); ++pin) {
            std::optional<Pulse>& pulse = output.pulses[pin];
            if (pulse && pulse->end <= now) {
                output.pins[pin] = pulse->restore;
                pulse.reset();
            }
        }
        if (output.pins != before) {
            changed.push_back(number);
        }
    }
    return changed;
}

std::optional<DeviceState::Clock::time_point> DeviceState::NextExpiry() const {
    std::optional<Clock::time_point> next;
    for (const Output& output : m_outputs) {
        for (const std::optional<Pulse>& pulse : output.pulses) {
            if (pulse && (!next || pulse->end < *next)) {
                next = pulse->end;
            }
        }
    }
    return next;
}

std::string DeviceState::InputLine(int number) const {
    return "GPI " + std::to_string(number) + " " + m_inputs.at(static_cast<size_t>(number));
}

std::string DeviceState::OutputLine(int number) const {
    return "GPO " + std::to_string(number) + " " + OutputPins(number);
}

const std::string& DeviceState::OutputPins(int number) const {
    return m_outputs.at(static_cast<size_t>(number)).pins;
}

bool DeviceState::SetPresent(int number, std::bitset<PINS> pins) {
    Output& output = m_outputs.at(static_cast<size_t>(number));
    const std::string before = output.pins;
    output.present = pins;
    for (size_t pin = 0; pin < PINS; ++pin) {
        if (!pins[pin]) {
            output.pins[pin] = 'H';
            output.pulses[pin].reset();
        }
    }
    return output.pins != before;
}

void DeviceState::Forget(const std::string& setting) {
    m_settings.erase(std::remove(m_settings.begin(), m_settings.end(), setting), m_settings.end());
}

std::vector<std::string> DeviceState::Lines() const {
    std::vector<std::string> lines = m_settings;
    for (const auto& entry : m_configuration) {
        lines.push_back(entry.second);
    }
    for (int number = 1; number <= INPUTS; ++number) {
        if (m_inputs[static_cast<size_t>(number)] != ALL_HIGH) {
            lines.push_back(InputLine(number));
        }
    }
    for (int number = 1; number <= OUTPUTS; ++number) {
        if (m_outputs[static_cast<size_t>(number)].pins != ALL_HIGH) {
            lines.push_back(OutputLine(number));
        }
    }
    return lines;
}
