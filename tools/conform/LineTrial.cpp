#include "tools/conform/LineTrial.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "tqr/tqrcli.h"

namespace {

const std::chrono::milliseconds SILENCE(200);
const size_t MOST_SHOWN = 1000;  // characters of a record

// Stores a line "WORD n state".
void TakeState(const std::string& line, const char* format, std::map<int, std::string>& states) {
    int number = 0;
    int behind = 0;
    if (sscanf(line.c_str(), format, &number, &behind) == 1 && behind > 0) {
        states[number] = line.substr(static_cast<size_t>(behind));
    }
}

// Lines as one text: the beginning of long ones.
std::string Shown(const std::string& lines) {
    std::string text = lines.substr(0, lines.find_last_not_of('\n') + 1);
    if (text.size() > MOST_SHOWN) {
        text.replace(MOST_SHOWN, text.npos, "...");
    }
    for (size_t at = 0; (at = text.find('\n', at)) != text.npos; at += 2) {
        text.replace(at, 1, ", ");
    }
    return text;
}

}  // namespace

LineTrial::LineTrial(const CSvcAddress& server, std::chrono::milliseconds limit, Critic critic)
    : m_server(server), m_limit(limit), m_critic(critic) {}

bool LineTrial::Connect() {
    m_table = ChannelTable();
    m_inputs.clear();
    m_outputs.clear();
    m_sent = "a connection";
    m_seen.clear();
    m_client.Connect(m_server, m_limit);
    while (m_client.IsOpen() && !m_client.IsConnected()) {
        std::string line;
        if (m_client.Wait(line, Clock::now() + std::chrono::milliseconds(1))) {
            Take(line);
        }
    }
    return m_client.IsConnected();
}

void LineTrial::Send(const std::string& lines) {
    m_sent = lines + "\n";
    m_seen.clear();
    m_client.Send(lines);
}

void LineTrial::SendPiece(const std::string& bytes) {
    m_sent += bytes;
    m_client.SendBytes(bytes);
}

void LineTrial::Take(const std::string& line) {
    m_seen += line + "\n";
    m_table.Take(line);
    TakeState(line, "GPI %d %n", m_inputs);
    TakeState(line, "GPO %d %n", m_outputs);
    const std::string fault = m_critic(line);
    if (!fault.empty() && m_fault.verdict == Verdict::Met) {
        m_fault = {Verdict::NotMet, Shown(m_sent), fault, Shown(line)};
    }
}

bool LineTrial::Await(const Wanted& wanted, std::chrono::milliseconds time) {
    const Clock::time_point end = Clock::now() + time;
    for (std::string line; m_client.Wait(line, end);) {
        Take(line);
        if (wanted(line)) {
            return true;
        }
    }
    return false;
}

bool LineTrial::Await(const Wanted& wanted) {
    return Await(wanted, m_limit);
}

void LineTrial::Listen(std::chrono::milliseconds time) {
    Await([](const std::string&) { return false; }, time);
}

void LineTrial::AwaitSilence() {
    const Clock::time_point end = Clock::now() + m_limit;
    while (Await([](const std::string&) { return true; }, SILENCE) && Clock::now() < end) {
    }
}

std::string LineTrial::Seen(const std::string& beginning) const {
    std::string lines;
    for (size_t at = 0, end = 0; at < m_seen.size(); at = end + 1) {
        end = m_seen.find('\n', at);
        if (m_seen.compare(at, beginning.size(), beginning) == 0) {
            lines += m_seen.substr(at, end + 1 - at);
        }
    }
    return lines;
}

Outcome LineTrial::Missed(const std::string& expected) const {
    std::string seen = Shown(m_seen);
    if (!m_client.IsOpen() && !m_client.Problem().empty()) {
        seen += (seen.empty() ? "" : ", then: ") + m_client.Problem();
    }
    return {Verdict::NotMet, Shown(m_sent), expected, seen.empty() ? "nothing" : seen};
}

std::string LengthFault(const std::string& line) {
    if (line.size() >= static_cast<size_t>(LINE_SIZE)) {
        return "lines of at most " + std::to_string(LINE_SIZE - 1) + " characters";
    }
    return line.find('\0') != line.npos ? "lines without NUL" : "";
}

bool IsState(const std::string& line, const char* word, int highest) {
    int number = 0;
    int behind = 0;
    const std::string format = std::string(word) + " %d%n";
    if (sscanf(line.c_str(), format.c_str(), &number, &behind) != 1 || number < 1 ||
        number > highest || line[strlen(word)] != ' ') {
        return false;
    }
    const std::string state = line.substr(static_cast<size_t>(behind));
    return state.size() > 1 && state[0] == ' ' && strchr("HLhlx", state[1]) != nullptr;
}
