#include <algorithm>
#include <thread>

#include "tools/base/Time.h"
#include "tools/conform/Conform.h"
#include "tools/conform/ControlTrial.h"

using std::chrono::milliseconds;

namespace {

struct ControlDuty {
    const char* name;
    const char* text;
    Outcome (ControlTrial::*find)();
};

const ControlDuty DUTIES[] = {
    {"settings", "answers SET with its settings", &ControlTrial::Settings},
    {"configuration", "answers CFG GPO with a line for each channel", &ControlTrial::Configuration},
    {"write", "carries out GPO lines, and tells the output", &ControlTrial::Write},
    {"each-line", "takes a line for each pin, many at once", &ControlTrial::EachLine},
    {"alone", "leaves pins at x alone", &ControlTrial::Alone},
    {"pieces", "takes a line that comes in pieces", &ControlTrial::Pieces},
    {"ignores", "ignores what it can't use", &ControlTrial::Ignores},
    {"burst", "reads without delay", &ControlTrial::Burst},
    {"subscribe", "answers ADD GPI n with GPI n", &ControlTrial::Subscribe},
    {"source", "takes DEL GPI, GPO and ADD GPI, as after a change of source",
     &ControlTrial::Source},
    {"duration", "returns after a duration to the level before, and tells it",
     &ControlTrial::Duration},
    {"overlap", "returns after two durations to the level before the first",
     &ControlTrial::Overlap},
    {"override", "tells the level that was set while a duration ran", &ControlTrial::Override},
    {"again", "sends the configuration on every connection", &ControlTrial::Again},
    {"subscribe-again", "answers ADD GPI n on every connection", &ControlTrial::SubscribeAgain},
    {"kept", "keeps outputs beyond a connection", &ControlTrial::Kept},
    {"away", "ends durations without a connection, and tells it afterwards", &ControlTrial::Away},
    {"second", "serves a connection while an old one is open", &ControlTrial::Second},
    {"inputs", "tells changes of an input", &ControlTrial::Inputs},
    {"subscription", "keeps subscriptions beyond a connection", &ControlTrial::Subscription},
    {"idle", "keeps a silent connection", &ControlTrial::Idle},
    {"lines", "sends lines that the daemon takes as they are meant", &ControlTrial::Lines},
};

}  // namespace

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
    m_end.Send(Line("GPO", AllHigh()));
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
    if (!Shows(last)) {
        AwaitPins(last);  // of a server that pauses
    }
    if (!m_end.IsOpen() || !Shows(last)) {
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
    m_end.Send("DEL GPI " + number + "\n" + Line("GPO", AllHigh()) + "\nADD GPI " + number);
    AwaitInput();
    m_end.AwaitSilence();
    return Shows(AllHigh()) && !m_end.Seen("GPI ").empty()
               ? Outcome()
               : m_end.Missed(Line("GPO", AllHigh()) + " and " + Line("GPI", "STATE"));
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
    m_end.Await([&](const std::string&) { return Shows(high); }, longest + m_end.Limit());
    const auto lasted = LineTrial::Clock::now() - begin;
    m_end.Listen(std::max(milliseconds(200),
                          std::chrono::ceil<milliseconds>(longest - lasted) + milliseconds(200)));
    if (!Shows(high)) {
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
        return Shows(low) ? Outcome()
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
    if (m_end.Output(m_number).empty() || !Shows(high)) {
        outcome = m_end.Missed(Line("GPO", high) + ": its duration ended meanwhile");
    }
    return outcome;
}

// A daemon whose host vanished comes back while its old connection still seems to be open.
Outcome ControlTrial::Second() {
    LineTrial second = Beside();
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
    m_end.Await([&](const std::string&) { return is_new(); },
                milliseconds(WholeMilliseconds(m_settings.listen)));
    if (is_new()) {
        return outcome;
    }
    LineTrial other = Beside();
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
    m_end.Listen(milliseconds(WholeMilliseconds(m_settings.listen)));
    return m_end.IsOpen() ? Outcome() : m_end.Missed("the connection stays open");
}

Outcome ControlTrial::Lines() {
    return m_end.Fault();
}

void ExamineControl(const CSvcAddress& server, const ConformSettings& settings,
                    const TellFinding& tell) {
    ControlTrial trial(server, settings);
    bool is_first = true;
    for (const ControlDuty& duty : DUTIES) {
        // The answer to the first connection is examined as it is.
        const bool is_ready = is_first || duty.find == &ControlTrial::Configuration ||
                              duty.find == &ControlTrial::Lines || trial.Prepare();
        is_first = false;
        tell({duty.name, duty.text,
              is_ready ? (trial.*duty.find)()
                       : Outcome{Verdict::NotMet, "a connection", "that it is served",
                                 "no connection since the duty before"}});
    }
    trial.Finish();
}
