// The table of remote connections. Each part of the input is one step, by its first character:
//   o E S G   open entry E to server S, input G    c E   close entry E     r E   reconnect entry E
//   d S ...   server S sends the rest              x S   server S breaks its connection
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "fuzz/Check.h"
#include "fuzz/LineModel.h"
#include "fuzz/Net.h"
#include "fuzz/Script.h"
#include "gpiocli/gpiocli.h"

namespace {

const int ENTRIES = 32;
const int SERVERS = 2;
const size_t LINE_SIZE = 2000;

using Event = std::pair<unsigned long, std::string>;

// The pool, compared with a simple model of it.
class Pool {
public:
    // cppcheck-suppress uninitMemberVar; each element is set
    explicit Pool(TcpPeer* servers) : m_Servers(servers) {
        for (int& server : m_ServerOf) {
            server = -1;
        }
    }

    void Step(const std::string& step);

private:
    void Open(int entry, int server, uint8_t gpi);
    void Close(int entry);
    void Reconnect(int entry);
    void Receive(int server, const std::string& bytes);
    void Break(int server);
    void Connected(int server, int fd);
    void CheckSockets();
    int FirstEntryOf(int server) const;
    bool Parse(const std::string& line, int server, Event& event) const;
    std::vector<Event> TakeEvents(int entry);

    TcpPeer* m_Servers;
    CGPIOClient m_Pool{ENTRIES};
    int m_ServerOf[ENTRIES];  // -1 for none
    uint8_t m_Gpi[ENTRIES] = {};
    bool m_Up[SERVERS] = {};
    LineModel m_Lines[SERVERS] = {LineModel(LINE_SIZE), LineModel(LINE_SIZE)};
};

void Pool::Step(const std::string& step) {
    std::string s = step;
    s.resize(std::max<size_t>(s.size(), 4), '0');
    const int entry = static_cast<unsigned char>(s[1]) % ENTRIES;
    switch (s[0]) {
        case 'o':
            Open(entry, s[2] & 1, static_cast<uint8_t>(s[3] - '1'));
            break;
        case 'c':
            Close(entry);
            break;
        case 'r':
            Reconnect(entry);
            break;
        case 'd':
            Receive(s[1] & 1, step.substr(std::min<size_t>(step.size(), 2)));
            break;
        case 'x':
            Break(s[1] & 1);
            break;
        default:
            break;
    }
    CheckSockets();
}

std::string subscription(uint8_t gpi) {
    return "ADD GPI " + std::to_string(gpi + 1) + "\n";
}

void Pool::Open(int entry, int server, uint8_t gpi) {
    Close(entry);
    const bool is_new = FirstEntryOf(server) == -1;
    CHECK(m_Pool.open(static_cast<unsigned long>(entry), htonl(INADDR_LOOPBACK),
                      m_Servers[server].Port(), gpi) == 0);
    m_ServerOf[entry] = server;
    m_Gpi[entry] = gpi;
    if (is_new) {
        Connected(server, m_Pool.get_fd(entry));
    }
    if (m_Up[server]) {
        const std::string line = subscription(gpi);
        CHECK(m_Servers[server].Take(line.size()) == line);
    }
}

void Pool::Close(int entry) {
    const int server = m_ServerOf[entry];
    m_Pool.close(static_cast<unsigned long>(entry));
    m_ServerOf[entry] = -1;
    if (server != -1 && FirstEntryOf(server) == -1) {
        m_Up[server] = false;
    }
}

void Pool::Reconnect(int entry) {
    const int server = m_ServerOf[entry];
    const int fd = m_Pool.reconnect(entry);
    if (server == -1 || m_Up[server]) {
        CHECK(fd == -1);
        return;
    }
    CHECK(fd == m_Pool.get_fd(entry));
    Connected(server, fd);
    std::string lines;
    for (int k = 0; k < ENTRIES; ++k) {
        lines += m_ServerOf[k] == server ? subscription(m_Gpi[k]) : "";
    }
    CHECK(m_Servers[server].Take(lines.size()) == lines);
}

void Pool::Connected(int server, int fd) {
    CHECK(fd != -1);
    m_Servers[server].Accept(fd);
    m_Up[server] = true;
    m_Lines[server] = LineModel(LINE_SIZE);
}

void Pool::Receive(int server, const std::string& bytes) {
    const int entry = FirstEntryOf(server);
    if (entry == -1 || !m_Up[server]) {
        return;
    }
    m_Servers[server].Send(bytes);
    await_bytes(m_Pool.get_fd(entry), bytes.size());
    std::vector<Event> expected;
    for (const std::string& line : m_Lines[server].Feed(bytes)) {
        Event event;
        if (Parse(line, server, event)) {
            expected.push_back(event);
        }
    }
    CHECK(TakeEvents(entry) == expected);
    m_Up[server] = !m_Lines[server].IsClosed();
}

void Pool::Break(int server) {
    m_Servers[server].Reset();
    const int entry = FirstEntryOf(server);
    if (entry != -1 && m_Up[server]) {
        await_readable(m_Pool.get_fd(entry));
        CHECK(TakeEvents(entry).empty());
        m_Up[server] = false;
    }
}

void Pool::CheckSockets() {
    for (int k = 0; k < ENTRIES; ++k) {
        const bool up = m_ServerOf[k] != -1 && m_Up[m_ServerOf[k]];
        CHECK((m_Pool.get_fd(k) != -1) == up);
        CHECK(!up || m_Pool.get_fd(k) == m_Pool.get_fd(FirstEntryOf(m_ServerOf[k])));
    }
}

int Pool::FirstEntryOf(int server) const {
    for (int k = 0; k < ENTRIES; ++k) {
        if (m_ServerOf[k] == server) {
            return k;
        }
    }
    return -1;
}

// The entries that a line is for, and the state that it reports.
bool Pool::Parse(const std::string& line, int server, Event& event) const {
    if (line.compare(0, 4, "GPI ") != 0) {
        return false;
    }
    char* behind = nullptr;
    const long number = strtol(line.c_str() + 4, &behind, 0);
    for (int k = 0; k < ENTRIES; ++k) {
        if (m_ServerOf[k] == server && m_Gpi[k] + 1 == number) {
            event.first |= 1UL << k;
        }
    }
    event.second = *behind == ' ' ? behind + 1 : "";
    return *behind == ' ' && event.first != 0;
}

std::vector<Event> Pool::TakeEvents(int entry) {
    std::vector<Event> events;
    do {
        unsigned long mask = 0;
        while (const char* state = m_Pool.receive(entry, &mask)) {
            events.emplace_back(mask, state);
        }
    } while (m_Pool.get_fd(entry) != -1 && is_readable(m_Pool.get_fd(entry)));
    return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static TcpPeer servers[SERVERS] = {TcpPeer(0), TcpPeer(0)};
    {
        Pool pool(servers);
        for (const std::string& step : split_script(data, size)) {
            pool.Step(step);
        }
        for (TcpPeer& server : servers) {
            server.Reset();
        }
    }
    return 0;
}
