#include <string>

#include "tools/conform/Conform.h"
#include "tools/conform/LineTrial.h"

using std::chrono::milliseconds;

namespace {

const int INPUTS = 256;
const size_t MAX_STATE = 1991;  // that fits a line "GPO n STATE" of any channel
const int CONNECTIONS = 20;

std::string RemoteFault(const std::string& line) {
    std::string fault = LengthFault(line);
    if (!fault.empty() || line.compare(0, 3, "GPI") != 0) {
        return fault;
    }
    if (!IsState(line, "GPI", INPUTS)) {
        return "GPI m STATE, with m from 1 to 256 and STATE of H and L";
    }
    return line.size() - line.find(' ', 4) > MAX_STATE ? "a shorter state" : "";
}

// Follows an input, as the daemon does.
class RemoteTrial {
public:
    RemoteTrial(const CSvcAddress& server, int input, const ConformSettings& settings)
        : m_server(server),
          m_input(input),
          m_listen(static_cast<long long>(settings.listen * 1000)),
          m_end(server, milliseconds(static_cast<long long>(settings.wait * 1000)), RemoteFault) {
        if (!m_end.Connect()) {
            throw NobodyThere(m_end.Client().Problem(), m_end.Client().Error());
        }
    }

    bool Prepare() { return m_end.IsOpen() || m_end.Connect(); }

    Outcome Subscribe() { return Ask(m_end, m_input); }

    Outcome Again() { return Ask(m_end, m_input); }

    Outcome Several() {
        const int other = m_input == INPUTS ? 1 : m_input + 1;
        m_end.Send(Add(other) + "\n" + Add(m_input));
        if (!AwaitInput(m_end, other)) {
            return m_end.Seen(State(m_input)).empty() && !AwaitInput(m_end, m_input)
                       ? m_end.Missed(State(m_input) + "STATE")
                       : NotTried("it has no input " + std::to_string(other));
        }
        return m_end.Seen(State(m_input)).empty() && !AwaitInput(m_end, m_input)
                   ? m_end.Missed(State(other) + "STATE and " + State(m_input) + "STATE")
                   : Outcome();
    }

    Outcome Pieces() {
        const std::string line = Add(m_input);
        m_end.Send(Add(m_input));
        AwaitInput(m_end, m_input);
        m_end.SendPiece(line.substr(0, 5));
        m_end.Listen(milliseconds(50));
        m_end.SendPiece(line.substr(5) + "\n");
        return AwaitInput(m_end, m_input) ? Outcome()
                                          : m_end.Missed("an answer to the line in pieces");
    }

    // There may be any number of inputs; of the highest, silence is an answer too.
    Outcome Unknown() {
        m_end.Send(Add(m_input == INPUTS ? INPUTS - 1 : INPUTS));
        m_end.AwaitSilence();
        m_end.SendPiece(Add(m_input) + "\n");
        return AwaitInput(m_end, m_input) ? Outcome() : m_end.Missed(State(m_input) + "STATE");
    }

    Outcome Connections() {
        LineTrial second(m_server, m_end.Limit(), RemoteFault);
        second.Connect();
        const Outcome outcome = Ask(second, m_input);
        return outcome.verdict == Verdict::Met ? Ask(m_end, m_input) : outcome;
    }

    Outcome Reconnect() {
        Outcome outcome;
        for (int i = 0; i < CONNECTIONS && outcome.verdict == Verdict::Met; ++i) {
            m_end.Connect();
            outcome = Ask(m_end, m_input);
        }
        return outcome;
    }

    // A change must be told on two connections.
    Outcome Changes() {
        if (m_listen.count() == 0) {
            return NotTried("with --for, somebody has time to change the input");
        }
        LineTrial second(m_server, m_end.Limit(), RemoteFault);
        second.Connect();
        Ask(second, m_input);
        Ask(m_end, m_input);
        const std::string before = m_end.Input(m_input);
        bool is_told = AwaitChange(m_end, m_listen);
        const bool is_told_twice = AwaitChange(second, m_end.Limit());
        is_told = is_told || (is_told_twice && AwaitChange(m_end, m_end.Limit()));
        if (is_told != is_told_twice) {
            return (is_told ? second : m_end).Missed("a change on every connection");
        }
        LineTrial third(m_server, m_end.Limit(), RemoteFault);
        third.Connect();
        Ask(third, m_input);
        const std::string after = third.Input(m_input);
        if (!is_told && !after.empty() && after != before) {
            return m_end.Missed(State(m_input) + after + " when it changed");
        }
        return is_told ? Outcome()
                       : NotTried("input " + std::to_string(m_input) + " did not change meanwhile");
    }

    Outcome Idle() {
        if (m_listen.count() == 0) {
            return NotTried("with --for, the connection is silent for so long");
        }
        m_end.Listen(m_listen);
        return m_end.IsOpen() ? Outcome() : m_end.Missed("the connection stays open");
    }

    Outcome Lines() { return m_end.Fault(); }

private:
    static std::string Add(int input) { return "ADD GPI " + std::to_string(input); }
    static std::string State(int input) { return "GPI " + std::to_string(input) + " "; }

    static bool AwaitInput(LineTrial& end, int input) {
        return end.Await([&](const std::string& line) {
            return line.compare(0, State(input).size(), State(input)) == 0;
        });
    }

    bool AwaitChange(LineTrial& end, milliseconds time) const {
        const std::string before = end.Input(m_input);
        return end.Await([&](const std::string&) { return end.Input(m_input) != before; }, time);
    }

    static Outcome Ask(LineTrial& end, int input) {
        end.Send(Add(input));
        return AwaitInput(end, input) ? Outcome() : end.Missed(State(input) + "STATE");
    }

    const CSvcAddress m_server;
    const int m_input;
    const milliseconds m_listen;
    LineTrial m_end;
};

struct RemoteDuty {
    const char* name;
    const char* text;
    Outcome (RemoteTrial::*find)();
};

const RemoteDuty DUTIES[] = {
    {"subscribe", "answers ADD GPI m with GPI m", &RemoteTrial::Subscribe},
    {"again", "answers a second ADD GPI m for the same input", &RemoteTrial::Again},
    {"several", "serves several inputs on one connection", &RemoteTrial::Several},
    {"pieces", "takes a line that comes in pieces", &RemoteTrial::Pieces},
    {"unknown", "goes on after ADD GPI of an input that it may not have", &RemoteTrial::Unknown},
    {"connections", "serves several connections", &RemoteTrial::Connections},
    {"reconnect", "serves connection after connection", &RemoteTrial::Reconnect},
    {"changes", "tells changes of an input on every connection", &RemoteTrial::Changes},
    {"idle", "keeps a silent connection", &RemoteTrial::Idle},
    {"lines", "sends lines that the daemon takes as they are meant", &RemoteTrial::Lines},
};

}  // namespace

void ExamineRemote(const CSvcAddress& server, int input, const ConformSettings& settings,
                   const TellFinding& tell) {
    RemoteTrial trial(server, input, settings);
    for (const RemoteDuty& duty : DUTIES) {
        tell({duty.name, duty.text,
              trial.Prepare() ? (trial.*duty.find)()
                              : Outcome{Verdict::NotMet, "a connection", "that it is served",
                                        "no connection since the duty before"}});
    }
}
