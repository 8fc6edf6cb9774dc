#include "tools/gpio/Config.h"

#include <linux/gpio.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>

namespace {

const char* const DEFAULT_ADDRESS = "127.0.0.1:93";
const double LONGEST_DEBOUNCE_US = 60e6;
const unsigned int HIGHEST_OFFSET = 65535;

[[noreturn]] void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

std::optional<unsigned int> ParseUnsigned(const std::string& text) {
    if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != text.npos) {
        return std::nullopt;
    }
    return static_cast<unsigned int>(std::stoul(text));
}

// "1.2": the second pin of the first GPI or GPO.
void ParsePin(const std::string& text, PinConfig& pin) {
    const size_t dot = std::min(text.find('.'), text.size());
    const std::optional<unsigned int> number = ParseUnsigned(text.substr(0, dot));
    const std::optional<unsigned int> which =
        ParseUnsigned(text.substr(std::min(dot + 1, text.size())));
    const unsigned int highest = pin.is_output ? DeviceState::OUTPUTS : DeviceState::INPUTS;
    if (!number || !which || *number < 1 || *number > highest || *which < 1 ||
        *which > DeviceState::PINS) {
        Refuse("not a pin, from 1.1 to " + std::to_string(highest) + ".5: " + text);
    }
    pin.number = static_cast<int>(*number);
    pin.pin = *which - 1;
}

// "5ms", in microseconds.
uint32_t ParseTime(const std::string& text) {
    const std::map<std::string, double> units = {{"us", 1}, {"ms", 1e3}, {"s", 1e6}};
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const auto unit = units.find(end);
    const double us = unit == units.end() ? 0 : number * unit->second;
    if (!(us >= 1 && us <= LONGEST_DEBOUNCE_US)) {
        Refuse("not a time from 1us to 60s, such as 5ms: " + text);
    }
    return static_cast<uint32_t>(std::lround(us));
}

// Of the options of a line, at most one per group may be given. cppcheck does not see that the
// table below is read.
struct LineOption {
    const char* group;  // cppcheck-suppress unusedStructMember
    // The kernel's flags that it sets.
    uint64_t flags;       // cppcheck-suppress unusedStructMember
    bool is_for_inputs;   // cppcheck-suppress unusedStructMember
    bool is_for_outputs;  // cppcheck-suppress unusedStructMember
};

const uint64_t ACTIVE_HIGH = 0;  // the default is the flag for active-low lines

const std::map<std::string, LineOption>& LineOptions() {
    static const std::map<std::string, LineOption> options = {
        {"active-low", {"level", GPIO_V2_LINE_FLAG_ACTIVE_LOW, true, true}},
        {"active-high", {"level", ACTIVE_HIGH, true, true}},
        {"pull-up", {"bias", GPIO_V2_LINE_FLAG_BIAS_PULL_UP, true, true}},
        {"pull-down", {"bias", GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN, true, true}},
        {"no-pull", {"bias", GPIO_V2_LINE_FLAG_BIAS_DISABLED, true, true}},
        {"push-pull", {"drive", 0, false, true}},
        {"open-drain", {"drive", GPIO_V2_LINE_FLAG_OPEN_DRAIN, false, true}},
        {"open-source", {"drive", GPIO_V2_LINE_FLAG_OPEN_SOURCE, false, true}},
        {"debounce", {"debounce", 0, true, false}},
        {"initial", {"initial", 0, false, true}},
        {"on-exit", {"on-exit", 0, false, true}},
    };
    return options;
}

char ParseLevel(const std::string& text) {
    if (text != "H" && text != "L") {
        Refuse("not H or L: " + text);
    }
    return text[0];
}

OnExit ParseOnExit(const std::string& text) {
    static const std::map<std::string, OnExit> names = {
        {"keep", OnExit::Keep}, {"H", OnExit::High}, {"L", OnExit::Low}, {"input", OnExit::Input}};
    const auto found = names.find(text);
    if (found == names.end()) {
        Refuse("not keep, H, L or input: " + text);
    }
    return found->second;
}

void TakeOptions(ConfigWords& words, PinConfig& pin) {
    std::set<std::string> groups;
    uint64_t flags = 0;
    while (!words.IsAtEnd()) {
        const std::string& word = words.Next("");
        const auto option = LineOptions().find(word);
        if (option == LineOptions().end()) {
            Refuse("unknown option: " + word);
        }
        if (!(pin.is_output ? option->second.is_for_outputs : option->second.is_for_inputs)) {
            Refuse(word + (pin.is_output ? " is for inputs" : " is for outputs"));
        }
        if (!groups.insert(option->second.group).second) {
            Refuse(word + " contradicts an option before it, or repeats it");
        }
        flags |= option->second.flags;
        if (word == "debounce") {
            pin.settings.debounce_us = ParseTime(words.Next("a time, such as 5ms"));
        } else if (word == "initial") {
            pin.initial = ParseLevel(words.Next("H or L"));
        } else if (word == "on-exit") {
            pin.on_exit = ParseOnExit(words.Next("keep, H, L or input"));
        }
    }
    flags |= groups.count("level") == 0 ? GPIO_V2_LINE_FLAG_ACTIVE_LOW : 0;
    flags |= pin.is_output ? GPIO_V2_LINE_FLAG_OUTPUT
                           : GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING |
                                 GPIO_V2_LINE_FLAG_EDGE_FALLING;
    pin.settings.flags = flags;
}

class Reader {
public:
    explicit Reader(const std::string& file) : m_errors(file) { m_config.file = file; }

    GpioConfig Run();

private:
    void TakeLine(const ConfigLine& line);
    void TakeListen(ConfigWords& words);
    void TakeChip(ConfigWords& words);
    void TakePin(ConfigWords& words, bool is_output, int line);
    void CheckChips();

    GpioConfig m_config;
    ConfigErrors m_errors;
    DeviceState m_device;  // judges CFG and SET
};

GpioConfig Reader::Run() {
    for (const ConfigLine& line : ReadConfigLines(m_config.file)) {
        m_errors.Try(line.number, [&] { TakeLine(line); });
    }
    CheckChips();
    m_errors.ThrowIfAny();
    if (m_config.listen.empty()) {
        m_config.listen.push_back({ParseEndpoint(DEFAULT_ADDRESS).value(), {}});
    }
    return m_config;
}

void Reader::TakeLine(const ConfigLine& line) {
    ConfigWords words(line.words);
    const std::string& key = line.words[0];
    if (key == "listen") {
        TakeListen(words);
    } else if (key == "chip") {
        TakeChip(words);
    } else if (key == "input" || key == "output") {
        TakePin(words, key == "output", line.number);
    } else if (key == "CFG" || key == "SET") {
        const std::string error = m_device.Apply(line.text, {}).error;
        if (!error.empty()) {
            Refuse(error);
        }
        m_config.lines.push_back(line.text);
    } else {
        Refuse("unknown setting: " + key);
    }
}

void Reader::TakeListen(ConfigWords& words) {
    ListenConfig listen = {TakeEndpoint(words), {}};
    for (const ListenConfig& other : m_config.listen) {
        if (other.endpoint == listen.endpoint) {
            Refuse(listen.endpoint.Text() + " is given twice");
        }
    }
    while (!words.IsAtEnd()) {
        const std::string& word = words.Next("");
        if (word == "inputs") {
            listen.access.inputs_only = true;
        } else if (word == "from") {
            listen.access.from.push_back(TakeNetwork(words));
        } else {
            Refuse("unknown option: " + word);
        }
    }
    m_config.listen.push_back(listen);
}

void Reader::TakeChip(ConfigWords& words) {
    static const std::map<std::string, ChipConfig::Key> keys = {{"label", ChipConfig::Key::Label},
                                                                {"path", ChipConfig::Key::Path},
                                                                {"name", ChipConfig::Key::Name}};
    ChipConfig chip;
    chip.name = words.Next("a name and label, path or name");
    const std::string& key = words.Next("label, path or name");
    const auto found = keys.find(key);
    if (chip.name == "line" || found == keys.end()) {
        Refuse(chip.name == "line" ? "a chip can't be called line"
                                   : "not label, path or name: " + key);
    }
    chip.key = found->second;
    chip.value = words.NextText("a value");
    if (!words.IsAtEnd()) {
        Refuse("more after the chip's " + key);
    }
    for (const ChipConfig& other : m_config.chips) {
        if (other.name == chip.name) {
            Refuse("two chips are called " + chip.name);
        }
    }
    m_config.chips.push_back(chip);
}

void Reader::TakePin(ConfigWords& words, bool is_output, int line) {
    PinConfig pin;
    pin.is_output = is_output;
    pin.line = line;
    ParsePin(words.Next("a pin, such as 1.1"), pin);
    const std::string& where = words.Next("line NAME, or a chip and an offset");
    if (where == "line") {
        pin.line_name = words.NextText("the name of a line");
    } else {
        pin.chip = where;
        const std::string& text = words.Next("the offset of a line");
        const std::optional<unsigned int> offset = ParseUnsigned(text);
        if (!offset || *offset > HIGHEST_OFFSET) {
            Refuse("not the offset of a line: " + text);
        }
        pin.offset = *offset;
    }
    TakeOptions(words, pin);
    for (const PinConfig& other : m_config.pins) {
        if (other.IsSamePin(pin)) {
            Refuse(pin.PinText() + " is given in line " + std::to_string(other.line) + " already");
        }
        if (other.LineText() == pin.LineText()) {
            Refuse(pin.LineText() + " is " + other.PinText() + " already");
        }
    }
    m_config.pins.push_back(pin);
}

// Chips may be named after the pins that need them.
void Reader::CheckChips() {
    for (const PinConfig& pin : m_config.pins) {
        const auto is_its = [&pin](const ChipConfig& chip) { return chip.name == pin.chip; };
        if (!pin.chip.empty() &&
            std::none_of(m_config.chips.begin(), m_config.chips.end(), is_its)) {
            m_errors.Add(pin.line, "no chip is called " + pin.chip);
        }
    }
}

// Where symbolic links lead to.
std::string RealPath(const std::string& path) {
    char* const real = realpath(path.c_str(), nullptr);
    std::string result = real != nullptr ? real : path;
    free(real);
    return result;
}

}  // namespace

bool ChipConfig::Matches(const ChipInfo& chip) const {
    switch (key) {
        case Key::Label:
            return chip.label == value;
        case Key::Name:
            return chip.name == value;
        case Key::Path:
            return chip.path == RealPath(value);
    }
    return false;
}

std::string PinConfig::PinText() const {
    return std::string(is_output ? "output " : "input ") + std::to_string(number) + "." +
           std::to_string(pin + 1);
}

std::string PinConfig::LineText() const {
    return chip.empty() ? "line " + line_name : chip + " " + std::to_string(offset);
}

GpioConfig GpioConfig::Read(const std::string& file) {
    return Reader(file).Run();
}
