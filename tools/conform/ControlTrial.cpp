#include "tools/conform/ControlTrial.h"

#include <algorithm>
#include <thread>

using std::chrono::milliseconds;

namespace {

const std::string ALL_HIGH(PIN_COUNT, 'H');

milliseconds Milliseconds(double seconds) {
    return milliseconds(static_cast<long long>(seconds * 1000));
}

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

// Whether a state shows these pins; 'x' is any level, and a pin that is missing reads high.
bool Shows(const std::string& state, const std::string& pins) {
    for (size_t pin = 0; pin < pins.size(); ++pin) {
        const char level = pin < state.size() ? state[pin] : 'H';
        const bool is_low = level == 'L' || level == 'l';
        if (pins[pin] != 'x' && is_low != (pins[pin] == 'L')) {
            return false;
        }
    }
    return true;
}

}  // namespace

ControlTrial::ControlTrial(const CSvcAddress& server, const ConformSettings& settings)
    : m_server(server),
      m_settings(settings),
      m_end(server, Milliseconds(settings.wait), ControlFault) {
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
    if (m_number != 0 && m_end.Output(m_number) != ALL_HIGH) {
        m_end.Send(Line("GPO", ALL_HIGH));
        m_end.AwaitSilence();
    }
    return m_end.IsOpen();
}

void ControlTrial::Finish() {
    if (Prepare() && m_number != 0) {
        m_end.Send(Line("GPO", ALL_HIGH));
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

std::string ControlTrial::With(size_t pin, char level, char others) const {
    std::string pins(PIN_COUNT, others);
    pins[pin] = level;
    return pins;
}

void ControlTrial::SetPin(size_t pin, char level, const char* behind) {
    m_end.Send(Line("GPO", With(pin, level) + behind));
}

bool ControlTrial::AwaitPins(const std::string& pins, milliseconds time) {
    return m_end.Await(
        [&](const std::string& line) {
            return line.compare(0, 4, "GPO ") == 0 && Shows(m_end.Output(m_number), pins);
        },
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

Outcome ControlTrial::Settings() {
    const std::string lines = m_end.Seen("SET ");
    if (lines.empty()) {
        return NotTried("no SET line came: it has no settings, or does not answer");
    }
    const std::optional<uint32_t> address = m_end.Table().InterfaceAddress();
    return address && *address == 0 && lines.find("NIC_IPADDR=0.0.0.0") == lines.npos
               ? m_end.Missed("SET NIC_IPADDR=a.b.c.d")
               : Outcome();
}

Outcome ControlTrial::Configuration() {
    return m_end.Seen("CFG GPO ").empty() ? m_end.Missed("CFG GPO n SRCA=... for each channel")
                                          : Outcome();
}

// Finds the pins that can be switched: a device need not have all of them.
Outcome ControlTrial::Write() {
    Outcome outcome;
    if (m_number == 0) {
        return NotTried("no channel has a source");
    }
    m_end.Send(Line("GPO", ALL_HIGH));
    m_end.AwaitSilence();
    std::string lines;
    for (size_t pin = 0; pin < PIN_COUNT; ++pin) {
        lines += (pin > 0 ? "\n" : "") + Line("GPO", With(pin, 'L'));
    }
    m_end.Send(lines);
    AwaitPins("LLLLL");
    outcome = m_end.Missed(Line("GPO", "LLLLL") + ", or those pins low that it has");
    const std::string state = m_end.Output(m_number);
    for (size_t pin = 0; pin < PIN_COUNT; ++pin) {
        if (Shows(state, With(pin, 'L'))) {
            m_pins.push_back(pin);
        } else if (SetPin(pin, 'L'); AwaitPins(With(pin, 'L'), m_end.Limit() / 2)) {
            m_pins.push_back(pin);
            m_late.push_back(pin);
        }
    }
    return m_pins.empty() ? outcome : Outcome();
}

Outcome ControlTrial::EachLine() {
    Outcome outcome;
    if (!Lacks(TwoPins, outcome) && !m_late.empty()) {
        outcome = {Verdict::NotMet, "five GPO lines at once, one for each pin",
                   "the pins that it has, low", "some were only set by lines that came alone"};
    }
    return outcome;
}

Outcome ControlTrial::Alone() {
    Outcome outcome;
    if (Lacks(TwoPins, outcome)) {
        return outcome;
    }
    const size_t a = m_pins[0];
    const size_t b = m_pins[1];
    std::string pins = With(a, 'L', 'H');
    SetPin(a, 'L');
    if (outcome = ExpectPins(pins); outcome.verdict != Verdict::Met) {
        return outcome;
    }
    pins[b] = 'L';
    SetPin(b, 'L');
    if (outcome = ExpectPins(pins); outcome.verdict != Verdict::Met) {
        return outcome;
    }
    SetPin(a, 'H');
    return ExpectPins(With(b, 'L', 'H'));
}

Outcome ControlTrial::Pieces() {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    const std::string line = Line("GPO", With(m_pins[0], 'L'));
    m_end.Send(Line("GPO", With(m_pins[0], 'H')));
    m_end.SendPiece(line.substr(0, line.size() - 3));
    m_end.Listen(milliseconds(50));
    m_end.SendPiece(line.substr(line.size() - 3) + "\n");
    return ExpectPins(With(m_pins[0], 'L'));
}

Outcome ControlTrial::Ignores() {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    m_end.Send(Line("GPO", "") + "\n" + Line("GPO", "?") + "\nGPO 99 LLLLL\nADD GPI\nHELLO\n" +
               Line("GPO", With(m_pins[0], 'L')));
    return ExpectPins(With(m_pins[0], 'L'));
}

// The daemon blocks while the server does not read.
Outcome ControlTrial::Burst() {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    std::string lines;
    for (int i = 0; i < 300; ++i) {
        lines += Line("GPO", With(m_pins[0], i % 2 == 0 ? 'H' : 'L')) + "\n";
    }
    m_end.Send(lines + Line("GPO", With(m_pins[0], 'L')));
    m_end.AwaitSilence();
    const std::string last = With(m_pins[0], 'L');
    if (!Shows(m_end.Output(m_number), last)) {
        AwaitPins(last);  // of a server that pauses
    }
    if (!m_end.IsOpen() || !Shows(m_end.Output(m_number), last)) {
        outcome = m_end.Missed(Line("GPO", With(m_pins[0], 'L')) + " as the last of these");
        outcome.sent = "300 lines for one pin at once, the last of them L";
    }
    return outcome;
}

Outcome ControlTrial::Subscribe() {
    Outcome outcome;
    if (!Lacks(Input, outcome)) {
        m_end.Send("ADD GPI " + std::to_string(m_number));
        outcome = AwaitInput() ? Outcome() : m_end.Missed(Line("GPI", "STATE"));
    }
    return outcome;
}

// As the daemon does when the source of the channel changes.
Outcome ControlTrial::Source() {
    Outcome outcome;
    if (Lacks(Input, outcome) || Lacks(Output, outcome)) {
        return outcome;
    }
    SetPin(m_pins[0], 'L');
    AwaitPins(With(m_pins[0], 'L'));
    const std::string number = std::to_string(m_number);
    m_end.Send("DEL GPI " + number + "\n" + Line("GPO", ALL_HIGH) + "\nADD GPI " + number);
    AwaitInput();
    m_end.AwaitSilence();
    return Shows(m_end.Output(m_number), ALL_HIGH) && !m_end.Seen("GPI ").empty()
               ? Outcome()
               : m_end.Missed(Line("GPO", ALL_HIGH) + " and " + Line("GPI", "STATE"));
}

// Sets a pin low for 300 ms and sends a second line for it meanwhile, if there is one. It must be
// high in the end, for 200 ms at least.
Outcome ControlTrial::Pulse(const char* second, milliseconds longest) {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    const auto begin = LineTrial::Clock::now();
    const std::string low = With(m_pins[0], 'L');
    const std::string high = With(m_pins[0], 'H');
    SetPin(m_pins[0], 'L', " DURATION:300");
    if (outcome = ExpectPins(low); outcome.verdict != Verdict::Met) {
        return outcome;
    }
    if (second != nullptr) {
        m_end.Listen(milliseconds(100));
        m_end.SendPiece(Line("GPO", second[0] == 'H' ? high : low) + (second + 1) + "\n");
    }
    m_end.Await([&](const std::string&) { return Shows(m_end.Output(m_number), high); },
                longest + m_end.Limit());
    const auto lasted = LineTrial::Clock::now() - begin;
    m_end.Listen(std::max(milliseconds(200),
                          std::chrono::ceil<milliseconds>(longest - lasted) + milliseconds(200)));
    if (!Shows(m_end.Output(m_number), high)) {
        return m_end.Missed(Line("GPO", high) + " in the end");
    }
    if (second == nullptr && lasted < longest * 4 / 5) {
        return m_end.Missed(Line("GPO", high) + " after 300 ms, not before");
    }
    return outcome;
}

Outcome ControlTrial::Duration() {
    return Pulse(nullptr, milliseconds(300));
}

Outcome ControlTrial::Overlap() {
    return Pulse("L DURATION:500", milliseconds(800));
}

Outcome ControlTrial::Override() {
    return Pulse("H", milliseconds(400));
}

Outcome ControlTrial::Again() {
    if (m_number == 0) {
        return NotTried("no channel has a source");
    }
    const std::string line = m_end.Table().Channel(m_number).line;
    Connect();
    return m_end.Table().Channel(m_number).line == line
               ? Outcome()
               : m_end.Missed(line + ", as on the connection before");
}

Outcome ControlTrial::SubscribeAgain() {
    return Subscribe();
}

// What is told after the connection shows the level before; else a change to high does.
Outcome ControlTrial::Kept() {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    const std::string low = With(m_pins[0], 'L');
    SetPin(m_pins[0], 'L');
    AwaitPins(low);
    Connect();
    if (!m_end.Output(m_number).empty()) {
        return Shows(m_end.Output(m_number), low)
                   ? Outcome()
                   : m_end.Missed(Line("GPO", low) + ", as before the connection was cut");
    }
    SetPin(m_pins[0], 'H');
    outcome = ExpectPins(With(m_pins[0], 'H'));
    outcome.expected += outcome.expected.empty() ? "" : ", as it was low before the cut";
    return outcome;
}

Outcome ControlTrial::Away() {
    Outcome outcome;
    if (Lacks(Output, outcome)) {
        return outcome;
    }
    SetPin(m_pins[0], 'L', " DURATION:300");
    AwaitPins(With(m_pins[0], 'L'));
    m_end.Cut();
    std::this_thread::sleep_for(milliseconds(600));
    Connect();
    const std::string high = With(m_pins[0], 'H');
    if (m_end.Output(m_number).empty()) {
        AwaitPins(high);
    }
    if (m_end.Output(m_number).empty() || !Shows(m_end.Output(m_number), high)) {
        outcome = m_end.Missed(Line("GPO", high) + ": its duration ended meanwhile");
    }
    return outcome;
}

// A daemon whose host vanished comes back while its old connection still seems to be open.
Outcome ControlTrial::Second() {
    LineTrial second(m_server, m_end.Limit(), ControlFault);
    if (!second.Connect()) {
        return second.Missed("a second connection beside the first");
    }
    second.Send("SET\nCFG GPO");
    return second.Await([](const std::string& line) { return line.compare(0, 4, "CFG ") == 0; }) ||
                   m_number == 0
               ? Outcome()
               : second.Missed("CFG GPO n SRCA=... on a second connection beside the first");
}

// Waits for a change of the input, and asks in the end whether there was one that was not told.
Outcome ControlTrial::TryInput(bool across_connections) {
    Outcome outcome;
    if (Lacks(Input, outcome)) {
        return outcome;
    }
    if (m_settings.listen == 0) {
        return NotTried("with --for, somebody has time to change an input");
    }
    m_end.Send("ADD GPI " + std::to_string(m_number));
    AwaitInput();
    std::string before = m_end.Input(m_number);
    if (across_connections && Connect() && !m_end.Input(m_number).empty()) {
        before = m_end.Input(m_number);
    }
    const auto is_new = [&] {
        const std::string& now = m_end.Input(m_number);
        return !now.empty() && now != before;
    };
    m_end.Await([&](const std::string&) { return is_new(); }, Milliseconds(m_settings.listen));
    if (is_new()) {
        return outcome;
    }
    LineTrial other(m_server, m_end.Limit(), ControlFault);
    other.Connect();
    other.Send("ADD GPI " + std::to_string(m_number));
    other.Await([](const std::string& line) { return line.compare(0, 4, "GPI ") == 0; });
    const std::string& after = other.Input(m_number);
    if (after.empty() || after == before) {
        return NotTried("input " + std::to_string(m_number) + " did not change meanwhile");
    }
    outcome = m_end.Missed(Line("GPI", after) + " when it changed");
    outcome.sent = across_connections ? "ADD GPI " + std::to_string(m_number) +
                                            ", then another connection with SET and CFG GPO"
                                      : outcome.sent;
    return outcome;
}

Outcome ControlTrial::Inputs() {
    return TryInput(false);
}

Outcome ControlTrial::Subscription() {
    return TryInput(true);
}

Outcome ControlTrial::Idle() {
    if (m_settings.listen == 0) {
        return NotTried("with --for, the connection is silent for so long");
    }
    m_end.Listen(Milliseconds(m_settings.listen));
    return m_end.IsOpen() ? Outcome() : m_end.Missed("the connection stays open");
}

Outcome ControlTrial::Lines() {
    return m_end.Fault();
}
