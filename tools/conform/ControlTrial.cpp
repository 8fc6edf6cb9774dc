#include "tools/conform/ControlTrial.h"

#include "tools/base/Time.h"

using std::chrono::milliseconds;

namespace {

// What the daemon would not take as it is meant.
std::string ControlFault(const std::string& line) {
    std::string fault = LengthFault(line);
    if (!fault.empty()) {
        return fault;
    }
    for (const char* const word : {"GPI", "GPO"}) {
        if (line.compare(0, 3, word) == 0 && !IsState(line, word, CHANNEL_COUNT)) {
            return std::string(word) + " n STATE, with n from 1 to 32 and STATE of H and L";
        }
    }
    ChannelTable table;
    return line.compare(0, 3, "CFG") == 0 && table.Take(line).number == 0
               ? "CFG GPO n SRCA=..., with n from 1 to 32"
               : "";
}

}  // namespace

ControlTrial::ControlTrial(const CSvcAddress& server, const ConformSettings& settings)
    : m_server(server),
      m_settings(settings),
      m_end(server, milliseconds(WholeMilliseconds(settings.wait)), ControlFault) {
    if (!Connect()) {
        throw NobodyThere(m_end.Client().Problem(), m_end.Client().Error());
    }
    for (const ChannelKind kind : {KIND_BUS, KIND_REMOTE}) {
        const std::vector<int> numbers = m_end.Table().Find(kind);
        if (m_number == 0 && !numbers.empty()) {
            m_number = numbers[0];
            m_is_bus = kind == KIND_BUS;
        }
    }
}

// As the daemon does after every connection.
bool ControlTrial::Connect() {
    if (!m_end.Connect()) {
        return false;
    }
    m_end.Send("SET\nCFG GPO");
    m_end.Await([](const std::string& line) { return line.compare(0, 4, "CFG ") == 0; });
    m_end.AwaitSilence();
    return m_end.IsOpen();
}

bool ControlTrial::Prepare() {
    if (!m_end.IsOpen() && !Connect()) {
        return false;
    }
    if (m_number != 0 && m_end.Output(m_number) != AllHigh()) {
        m_end.Send(Line("GPO", AllHigh()));
        m_end.AwaitSilence();
    }
    return m_end.IsOpen();
}

void ControlTrial::Finish() {
    if (Prepare() && m_number != 0) {
        m_end.Send(Line("GPO", AllHigh()));
        m_end.AwaitSilence();
    }
}

bool ControlTrial::Lacks(Needs needs, Outcome& outcome) const {
    if (m_number == 0 || (needs == Input && !m_is_bus)) {
        outcome = NotTried(needs == Input ? "no channel has an address on the bus"
                                          : "no channel has a source");
    } else if (needs == Output && m_pins.empty()) {
        outcome = NotTried("no pin of the output can be switched");
    } else if (needs == TwoPins && m_pins.size() < 2) {
        outcome = NotTried("fewer than two pins of the output can be switched");
    } else {
        return false;
    }
    return true;
}

std::string ControlTrial::Line(const std::string& word, const std::string& state) const {
    return word + " " + std::to_string(m_number) + (state.empty() ? "" : " " + state);
}

std::string ControlTrial::AllHigh() {
    return std::string(PIN_COUNT, 'H');
}

LineTrial ControlTrial::Beside() const {
    return {m_server, m_end.Limit(), ControlFault};
}

std::string ControlTrial::With(size_t pin, char level, char others) const {
    std::string pins(PIN_COUNT, others);
    pins[pin] = level;
    return pins;
}

void ControlTrial::SetPin(size_t pin, char level, const char* behind) {
    m_end.Send(Line("GPO", With(pin, level) + behind));
}

bool ControlTrial::Shows(const std::string& state, const std::string& pins) {
    for (size_t pin = 0; pin < pins.size(); ++pin) {
        const char level = pin < state.size() ? state[pin] : 'H';
        const bool is_low = level == 'L' || level == 'l';
        if (pins[pin] != 'x' && is_low != (pins[pin] == 'L')) {
            return false;
        }
    }
    return true;
}

bool ControlTrial::AwaitPins(const std::string& pins, milliseconds time) {
    return m_end.Await(
        [&](const std::string& line) { return line.compare(0, 4, "GPO ") == 0 && Shows(pins); },
        time);
}

bool ControlTrial::AwaitPins(const std::string& pins) {
    return AwaitPins(pins, m_end.Limit());
}

Outcome ControlTrial::ExpectPins(const std::string& pins) {
    return AwaitPins(pins) ? Outcome() : m_end.Missed(Line("GPO", pins));
}

bool ControlTrial::AwaitInput() {
    return m_end.Await([&](const std::string& line) {
        return line.compare(0, Line("GPI", "").size() + 1, Line("GPI", "") + " ") == 0;
    });
}
