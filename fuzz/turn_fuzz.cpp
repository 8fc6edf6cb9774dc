// The main loop between its peers. Each part of the input is one step, by its first character:
//   T ...  TQRD sends the rest        R ... S ...  a remote server (port 93, port 94) does
//   B ... b ...  a peer on the bus sends the rest as one datagram, from one of two ports
//   t r    TQRD, the remote servers break their connections
//   c      a sweep becomes due        d            debug mode         .            a turn
#include <deque>
#include <memory>

#include "fuzz/BusModel.h"
#include "fuzz/Check.h"
#include "fuzz/Router.h"
#include "fuzz/Script.h"
#include "tqr/trace.h"

namespace {

class Game {
public:
    Game() { m_Router.Restart(true); }

    void Step(const std::string& step);
    void CheckService();

private:
    struct Datagram {
        UdpPeer* sender;
        std::string bytes;
    };

    bool IsControlOrRemoteWaiting() const;
    void SendNext();
    void Turn();
    bool CheckAnswer(const Datagram& datagram, const BusPacket& packet);
    void CheckEffects(const BusPacket& packet);
    void CheckTold();
    void Drain();

    Router& m_Router = Router::Get();
    CMainLoop m_Loop;
    std::unique_ptr<UdpPeer> m_Bus[2] = {std::make_unique<UdpPeer>(), std::make_unique<UdpPeer>()};
    std::deque<Datagram> m_Queue;             // for the bus; the first may be sent already
    bool m_IsSent = false;                    // it is, and not yet read
    std::map<UdpPeer*, uint32_t> m_LastTids;  // of what was delivered
    std::string m_Told;                       // to TQRD, a line not yet complete
};

void Game::Step(const std::string& step) {
    const char kind = step.empty() ? '\0' : step[0];
    const std::string rest = step.empty() ? "" : step.substr(1);
    switch (kind) {
        case 'T':
            m_Router.tqrd.Send(rest);
            break;
        case 'R':
        case 'S':
            m_Router.remotes[kind - 'R'].Send(rest);
            break;
        case 'B':
        case 'b':
            m_Queue.push_back({m_Bus[kind == 'B' ? 0 : 1].get(), rest});
            break;
        case 't':
            m_Router.tqrd.Reset();
            break;
        case 'r':
            m_Router.ResetRemotes();
            break;
        case 'c':
            Clock::Advance(SWEEP_PERIOD_S, 1000);
            break;
        case 'd':
            dbg = 1;
            break;
        case '.':
            Turn();
            break;
        default:
            break;
    }
}

bool Game::IsControlOrRemoteWaiting() const {
    bool waiting = local.get_fd() == -1 || is_readable(local.get_fd());
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        waiting = waiting || (gpiocli.get_fd(i) != -1 && is_readable(gpiocli.get_fd(i)));
    }
    return waiting;
}

// One at a time, so that it is known which one a turn reads. A turn never blocks: where nothing
// else can be read, there is an empty datagram.
void Game::SendNext() {
    if (m_Queue.empty()) {
        m_Queue.push_back({m_Bus[0].get(), ""});
    }
    if (!m_IsSent) {
        m_Queue.front().sender->Send(m_Queue.front().bytes, Router::BUS_PORT);
        m_IsSent = true;
    }
    await_readable(rudpsrv.GetSocket());
}

void Game::Turn() {
    SendNext();
    const bool was_down = local.get_fd() == -1;
    const bool bus_alone = !IsControlOrRemoteWaiting();
    CHECK(m_Loop.Turn());
    if (was_down) {
        m_Router.tqrd.Accept(local.get_fd());
        m_Told.clear();
    }
    m_Router.AcceptRemotes();
    m_IsSent = is_readable(rudpsrv.GetSocket());
    CHECK(!(m_IsSent && bus_alone));
    bool is_new = false;
    const Datagram datagram = m_Queue.front();
    const BusPacket packet(datagram.bytes);
    if (!m_IsSent) {
        m_Queue.pop_front();
        is_new = CheckAnswer(datagram, packet);
    }
    if (bus_alone && (is_new || !packet.is_delivered)) {
        CheckEffects(packet);
    }
    CheckTold();
    m_Router.TakeReports(0);
}

// Whether the packet is certainly new. (The daemon may have forgotten the last one by now.)
bool Game::CheckAnswer(const Datagram& datagram, const BusPacket& packet) {
    std::vector<std::string> answers;
    if (!packet.answer.empty()) {
        answers.push_back(packet.answer);
    }
    CHECK(datagram.sender->Take(answers.size()) == answers);
    if (!packet.is_delivered) {
        return false;
    }
    const auto last = m_LastTids.find(datagram.sender);
    const bool is_new = last == m_LastTids.end() || last->second != packet.tid;
    m_LastTids[datagram.sender] = packet.tid;
    return is_new;
}

// When a packet is all that the turn handles, its effects are known exactly.
void Game::CheckEffects(const BusPacket& packet) {
    std::map<uint32_t, int> numbers;
    if (!Router::BusChannels(numbers) || packet.HasTagTwice()) {
        return;
    }
    const std::string lines = packet.Lines(numbers);
    CHECK(m_Router.tqrd.Take(lines.size()) == lines);
    const size_t pins = packet.PinsRead(numbers);
    const std::vector<std::string> reports = m_Router.TakeReports(pins > 0 ? 1 : 0);
    CHECK(reports.size() == (pins > 0 ? 1 : 0));
    CHECK(pins == 0 || BusReader(reports[0].substr(4)).Number(2) == pins + 3);
}

bool is_line_of_router(const std::string& line) {
    for (const std::string word : {"GPO ", "ADD GPI ", "DEL GPI "}) {
        if (line.compare(0, word.size(), word) == 0) {
            const int number = atoi(line.c_str() + word.size());
            return number >= 1 && number <= CHANNEL_COUNT;
        }
    }
    return line == "SET" || line == "CFG GPO";
}

void Game::CheckTold() {
    m_Told += m_Router.tqrd.Take();
    for (size_t end; (end = m_Told.find('\n')) != std::string::npos; m_Told.erase(0, end + 1)) {
        CHECK(is_line_of_router(m_Told.substr(0, end)));
    }
}

void Game::Drain() {
    do {
        Turn();
    } while (!m_Queue.empty() || IsControlOrRemoteWaiting());
    m_Router.tqrd.Take();
    m_Router.TakeReports(0);
    m_Told.clear();
}

// Whatever happened before, the router serves new peers.
void Game::CheckService() {
    m_Router.tqrd.Reset();
    m_Router.ResetRemotes();
    Drain();
    m_Router.UseLoopback();
    std::string lines;
    for (int i = 0; i < CHANNEL_COUNT; ++i) {
        if (channels[i].proto != KIND_NONE) {
            lines += "CFG GPO " + std::to_string(i + 1) + " SRCA=none\n";
        }
    }
    lines += "CFG GPO 1 SRCA=1:2\nCFG GPO 2 SRCA=127.0.0.1:94/3\n";
    m_Router.tqrd.Send(lines);
    await_bytes(local.get_fd(), lines.size());
    Drain();
    UdpPeer peer;
    // cppcheck-suppress danglingLifetime; SendNext() takes it out again
    m_Queue.push_back(
        {&peer, std::string("\3M\2\7\0\0\0\1\0\0\0\0\0\0\0\0WRNI\0\1\0\1\2\10\7\100", 28)});
    SendNext();
    CHECK(m_Loop.Turn());
    CHECK(m_Router.tqrd.Take(12) == "GPO 1 Lxxxx\n");
    CHECK(peer.Take(1).size() == 1);
    m_Router.remotes[1].Send("GPI 3 HLHLH\n");
    await_readable(gpiocli.get_fd(1));
    CHECK(m_Loop.Turn());
    CHECK(m_Router.tqrd.Take(12) == "GPO 2 HLHLH\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) {
        return -1;  // bounds the time that an input takes
    }
    Game game;
    for (const std::string& step : split_script(data, size)) {
        game.Step(step);
    }
    game.CheckService();
    return 0;
}
