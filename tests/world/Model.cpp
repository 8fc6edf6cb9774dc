#include "tests/world/Model.h"

#include <algorithm>
#include <utility>

namespace {

const long LINE_ROOM = 2000;
const long LONGEST_FORWARDED = 1999;
const long PACKET_ROOM = 212992;

// Milliseconds on the clock, seconds and what is left of them apart.
Micros milliseconds_between(Micros from, Micros to) {
    return (to / SECOND - from / SECOND) * 1000 + (to % SECOND - from % SECOND) / MS;
}

std::string pin(uint32_t tag, bool is_low) {
    return big_endian(tag, 4) + '\7' + (is_low ? '\1' : '\0');
}

std::string five(std::string state) {
    state.resize(5, '\0');
    return state;
}

}  // namespace

// ---- the log

const Call& Model::ExpectBytes(const std::string& asks) {
    if (m_Next == m_World.log.size()) {
        m_World.Differ(asks, "nothing");
    }
    const Call& found = m_World.log[m_Next++];
    if (found.asks != asks) {
        m_World.Differ(asks, found.asks);
    }
    m_Clock = found.clock;
    return found;
}

bool Model::IsNext(const std::string& kind) const {
    return m_Next < m_World.log.size() && m_World.log[m_Next].asks.rfind(kind + " ", 0) == 0;
}

int Model::Opened(const std::string& kind) {
    return static_cast<int>(Expect("socket", kind).result);
}

void Model::Close(int fd, bool with_shutdown) {
    if (with_shutdown) {
        Expect("shutdown", fd);
    }
    Expect("close", fd);
}

// ---- start, turns and end

bool Model::Advance() {
    m_Next = 0;
    const bool goes_on = std::exchange(m_IsStarted, true) ? Turn() : Start();
    if (goes_on) {
        BeginTurn();
    }
    return goes_on;
}

bool Model::Start() {
    if (!m_IsDebug && Expect("daemon").result != 0) {
        return false;
    }
    Expect("fopen", "/var/run/orvex.pid", "wt");
    const int probe = Opened("datagram");
    if (probe >= 0) {
        m_Interface = Expect("ioctl", probe, "eth0").from.ip;
        Close(probe);
    }
    ConnectControl();
    m_Server = Opened("datagram");
    if (m_Server < 0) {
        return false;
    }
    Expect("setsockopt", m_Server, "SO_REUSEADDR", 1);
    Expect("setsockopt", m_Server, "IP_MULTICAST_IF", quad(0));
    if (Expect("bind", m_Server, Endpoint{0, REQUEST_PORT}.Text()).result != 0) {
        Close(std::exchange(m_Server, -1), true);
        return false;
    }
    Join();
    m_Client = Opened("datagram");
    if (m_Client < 0) {
        return false;
    }
    Tell("SET\nCFG GPO\n");
    m_Swept = m_Clock;
    return true;
}

// In the reverse order of their construction.
void Model::End() {
    for (const int fd : {m_Client, m_Server}) {
        if (fd >= 0) {
            Close(fd, true);
        }
    }
    for (int number = 1; number <= CHANNELS; ++number) {
        Unfollow(number);
    }
    if (m_Control.fd != -1) {
        Close(m_Control.fd);
    }
    if (m_Next != m_World.log.size()) {
        m_World.Differ("the end", m_World.log[m_Next].asks);
    }
}

bool Model::Turn() {
    const Call select = m_World.log[m_Next++];
    m_Clock = select.clock;
    if (select.result < 0) {
        return false;
    }
    std::set<char> readable(select.got.begin(), select.got.end());
    const auto is_due = [&readable](int fd) { return readable.erase(static_cast<char>(fd)) != 0; };
    bool is_configured = false;
    if (is_due(m_Control.fd)) {
        for (Line line; Take(m_Control, line);) {
            is_configured = Obey(line) || is_configured;
        }
    }
    if (select.result > 0 && std::exchange(m_IsInterfaceNew, false)) {
        Expect("setsockopt", m_Client, "IP_MULTICAST_IF", quad(m_Interface));
        Join();
    }
    if (is_configured) {
        return true;
    }
    if (is_due(m_Server)) {
        Receive();
    }
    for (const Endpoint& server : m_Watched) {
        if (is_due(m_Remotes[server].fd)) {
            Forward(server);
        }
    }
    return true;
}

// Up to the wait. The sweep brings back remote connections, each once for all channels that follow
// the server; after a failure the next of them tries.
void Model::BeginTurn() {
    while (m_Control.fd == -1) {
        Expect("usleep", 3400000);
        ConnectControl();
        if (m_Control.fd != -1) {
            Tell("SET\nCFG GPO\n");
        }
    }
    const bool is_sweep = milliseconds_between(m_Swept, m_Clock) > 27000;
    m_Swept = is_sweep ? m_Clock : m_Swept;
    m_Watched.clear();
    std::set<int> watched = {m_Control.fd, m_Server};
    for (const Channel& channel : m_Channels) {
        if (channel.source.kind != Source::REMOTE) {
            continue;
        }
        const Endpoint& server = channel.source.server;
        Connection& remote = m_Remotes[server];
        if (is_sweep && remote.fd == -1) {
            Reach(server, 0);
        }
        if (remote.fd != -1 && watched.insert(remote.fd).second) {
            m_Watched.push_back(server);
        }
    }
    ExpectBytes(words("select", 27 * SECOND) + std::string(watched.begin(), watched.end()));
}

// ---- connections

void Model::ConnectControl() {
    Connect(m_Control, {LOOPBACK, 93});
}

void Model::Connect(Connection& connection, const Endpoint& to) {
    connection = {};
    if (IsNext("no memory")) {
        Expect("no memory");
        return;
    }
    const int fd = Opened("stream");
    if (fd < 0) {
        return;
    }
    Expect("setsockopt", fd, "TCP_NODELAY", 1);
    Expect("setsockopt", fd, "SO_KEEPALIVE", 1);
    const Call connect = Expect("connect", fd, to.Text());
    if (connect.result == 0) {
        connection.fd = fd;
        connection.stream = connect.stream;
    } else {
        Close(fd);
    }
}

// The next line, after one look for more. A line behind which the connection has ended is lost.
bool Model::Take(Connection& connection, Line& line) {
    if (connection.fd == -1) {
        return false;
    }
    std::string& pending = connection.pending;
    if (ExpectBytes(std::string("poll ") + static_cast<char>(connection.fd)).result > 0) {
        const Call& read =
            Expect("recv", connection.fd, LINE_ROOM - static_cast<long>(pending.size()));
        if (read.result <= 0) {
            Close(connection.fd);
            m_World.Count("lost: lines behind which the connection ended",
                          static_cast<long>(connection.stream->lines.size()));
            connection = {};
            return false;
        }
        pending += read.got;
    }
    const size_t end = pending.find_first_of(std::string("\r\n\0", 3));
    if (end == std::string::npos || pending[end] == '\0') {
        return false;
    }
    const std::string text = pending.substr(0, end);
    pending.erase(0, std::min(pending.find_first_not_of("\r\n", end), pending.size()));
    line = {};
    if (!text.empty()) {
        line = connection.stream->lines.front();
        connection.stream->lines.pop_front();
        if (line.text != text) {
            m_World.Differ("the line " + line.text, "the line " + text);
        }
    }
    return true;
}

// To the input of this channel, or with 0 to those of all that follow the server.
void Model::Subscribe(const Endpoint& server, int number) {
    for (const Channel& channel : m_Channels) {
        if (channel.Follows(server) && (number == 0 || &channel == &m_Channels[number])) {
            ExpectBytes(words("send", m_Remotes[server].fd) + "ADD GPI " +
                        std::to_string(channel.source.gpi) + "\n");
        }
    }
}

void Model::Table() {
    if (m_IsDebug) {
        Expect("fopen", "/var/log/gpiocli.txt", "wt");
    }
}

// ---- control lines

void Model::Tell(const std::string& line) {
    if (m_Control.fd != -1) {
        ExpectBytes(words("send", m_Control.fd) + line);
    } else {
        m_World.Count("lost: line, no control server");
    }
}

bool Model::Obey(const Line& line) {
    Channel& channel = m_Channels[line.number];
    switch (line.kind) {
        case Line::CFG:
            return Configure(line.number, line.source);
        case Line::GPI:
            if (channel.source.kind == Source::BUS) {
                channel.input = five(line.state);
                ReportInput(channel);
            }
            return false;
        case Line::GPO:
            if (line.number <= 8 && channel.source.kind == Source::BUS) {
                channel.output = five(line.state);
            }
            return false;
        case Line::SET:
            m_IsInterfaceNew = m_IsInterfaceNew || line.address != m_Interface;
            m_Interface = line.address;
            return false;
        default:
            return false;
    }
}

bool Model::Configure(int number, const Source& source) {
    Channel& channel = m_Channels[number];
    const std::string n = std::to_string(number);
    if (source == channel.source) {
        return false;
    }
    Unfollow(number);
    if (channel.source.kind == Source::BUS) {
        Tell("DEL GPI " + n + "\n");
    }
    Tell("GPO " + n + " HHHHH\n");
    channel.output = "HHHHH";
    channel.source = source;
    if (source.kind == Source::REMOTE) {
        Follow(number);
    } else if (source.kind == Source::BUS) {
        Tell("ADD GPI " + n + "\n");
    }
    return true;
}

// The connection ends with the last channel that follows the server.
void Model::Unfollow(int number) {
    const Source old = m_Channels[number].source;
    if (old.kind != Source::REMOTE) {
        return;
    }
    m_Channels[number].source = {};
    if (std::none_of(m_Channels, m_Channels + CHANNELS + 1,
                     [&old](const Channel& c) { return c.Follows(old.server); })) {
        if (m_Remotes[old.server].fd != -1) {
            Close(m_Remotes[old.server].fd);
        }
        m_Remotes.erase(old.server);
    }
    Table();
}

// One connection serves all channels that follow the server. One that is down stays so until the
// next sweep.
void Model::Follow(int number) {
    const Endpoint server = m_Channels[number].source.server;
    if (m_Remotes.count(server) == 0) {
        Reach(server, number);
        return;
    }
    if (m_Remotes[server].fd != -1) {
        Subscribe(server, number);
    }
    Table();
}

void Model::Reach(const Endpoint& server, int number) {
    Connect(m_Remotes[server], server);
    if (m_Remotes[server].fd != -1) {
        Subscribe(server, number);
        Table();
    }
}

void Model::Forward(const Endpoint& server) {
    for (Line line; Take(m_Remotes[server], line);) {
        for (int number = 1; line.kind == Line::GPI && number <= CHANNELS; ++number) {
            const Channel& channel = m_Channels[number];
            if (channel.Follows(server) && channel.source.gpi == line.number) {
                Tell(("GPO " + std::to_string(number) + " " + line.state + "\n")
                         .substr(0, LONGEST_FORWARDED));
            }
        }
    }
}

// ---- the bus

void Model::Receive() {
    if (ExpectBytes(std::string("poll ") + static_cast<char>(m_Server)).result <= 0) {
        return;
    }
    const Micros now = m_Clock;
    const Call& read = Expect("recvfrom", m_Server, PACKET_ROOM);
    // Senders are forgotten after ten seconds, and when the clock was set back.
    while (!m_Senders.empty()) {
        const Micros age = (now - m_Senders.front().since) / MS;
        if (age >= 0 && age <= 10000) {
            break;
        }
        m_Senders.pop_front();
    }
    if (read.result < 0) {
        return;
    }
    const BusPacket packet(read.got);
    if (!packet.answer.empty()) {
        ExpectBytes(words("sendto", m_Server, read.from.Text()) + packet.answer);
    }
    if (packet.is_delivered && !IsRepeated(read.from, packet.tid) && !IsShortOfMemory() &&
        packet.is_message) {
        Carry(packet);
    }
}

// Whether it is the last that was accepted from there, which it is from now on.
bool Model::IsRepeated(const Endpoint& from, uint32_t tid) {
    const size_t MORE = 32;
    const auto found = std::find_if(m_Senders.begin(), m_Senders.end(),
                                    [&from](const Sender& s) { return s.at == from; });
    if (found == m_Senders.end()) {
        if (m_Senders.size() == m_Room) {
            if (!IsNext("no memory")) {
                m_Room += MORE;
            } else if (m_Senders.empty()) {
                return false;
            } else {
                m_Senders.pop_front();
            }
        }
        m_Senders.push_back({from, tid, m_Clock});
        return false;
    }
    if (found->tid == tid) {
        m_World.Count("kept: repetitions dropped");
        return true;
    }
    found->tid = tid;
    if (std::next(found) != m_Senders.end()) {  // the youngest one is not made younger
        found->since = m_Clock;
        m_Senders.splice(m_Senders.end(), m_Senders, found);
    }
    return false;
}

// When memory is short while a message is handled, what it would bring about may be lost.
bool Model::IsShortOfMemory() {
    if (!IsNext("no memory")) {
        return false;
    }
    m_World.Count("lost: message without memory for it");
    while (IsNext("no memory") || IsNext("send") || IsNext("sendto")) {
        m_Tid += IsNext("sendto") ? 1 : 0;
        m_Clock = m_World.log[m_Next++].clock;
    }
    return true;
}

void Model::Carry(const BusPacket& packet) {
    if (packet.IsRead()) {
        Reply(packet);
        return;
    }
    for (const BusItem& item : packet.items) {
        for (int number = 1; packet.IsWrite() && item.Pin() < 5 && number <= CHANNELS; ++number) {
            const Source& source = m_Channels[number].source;
            if (source.kind == Source::BUS && source.address == item.tag >> 8) {
                Tell(item.WriteLine(number));
            }
        }
    }
}

// Pins up to the first character that is none.
void Model::ReportInput(const Channel& channel) {
    std::string pins;
    for (uint32_t i = 0; i < 5 && std::string("HLhl").find(channel.input[i]) < 4; ++i) {
        const char state = channel.input[i];
        if (state == 'H' || state == 'L') {
            pins += pin(channel.source.address << 8 | (13 - i), state == 'L');
        }
    }
    if (!pins.empty()) {
        Report("INDI" + big_endian(pins.size() / 6, 2) + pins);
    }
}

void Model::Reply(const BusPacket& packet) {
    uint64_t request = 0;
    uint64_t data = 0;
    std::string pins;
    for (const BusItem& item : packet.items) {
        request = item.tag == 0xFFFFFFFF && item.type == 1 ? item.number : request;
        data = item.tag == 0xFFFFFFFC && item.type == 9 ? item.number : data;
        for (int number = CHANNELS; number >= 1; --number) {  // of several the last one answers
            const Channel& channel = m_Channels[number];
            if (channel.source.kind == Source::BUS && channel.source.address == item.tag >> 8 &&
                item.Pin() < 10) {
                const char state = (channel.output + channel.input)[item.Pin()];
                pins += pin(item.tag, state == 'L' || state == 'l');
                break;
            }
        }
    }
    if (!pins.empty()) {
        Report("INDI" + big_endian(pins.size() / 6 + 3, 2) + "\xFF\xFF\xFF\xFE\1" +
               big_endian(request, 4) + pins + "\xFF\xFF\xFF\xFD\7\2" + "\xFF\xFF\xFF\xFC\x09" +
               big_endian(data, 8));
    }
}

// To the group, twice, each with a number of its own.
void Model::Report(const std::string& payload) {
    for (int i = 0; i < 2; ++i) {
        m_Tid += m_Tid == 0xFFFFFFFF ? 2 : 1;
        ExpectBytes(words("sendto", m_Client, Endpoint{GROUP, ANSWER_PORT}.Text()) +
                    std::string("\3\0\2\7", 4) + big_endian(m_Tid, 4) + std::string(8, '\0') +
                    payload);
    }
}
