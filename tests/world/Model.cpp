#include "tests/world/Model.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>

#include "fuzz/BusModel.h"

namespace {

const long LINE_ROOM = 2000;
const long LONGEST_FORWARDED = 1999;
const long PACKET_ROOM = 212992;
const Micros PAUSE = 3400000;
const Micros WAIT = 27 * SECOND;
const std::string OUTPUT_CIRCUITS = "\x08\x07\x06\x05\x04";
const std::string INPUT_CIRCUITS = "\x0D\x0C\x0B\x0A\x09";

// Milliseconds on the clock, seconds and what is left of them apart.
Micros milliseconds_between(Micros from, Micros to) {
    return (to / SECOND - from / SECOND) * 1000 + (to % SECOND - from % SECOND) / MS;
}

std::string pin(uint32_t address, char circuit, bool is_low) {
    return big_endian(address << 8 | static_cast<unsigned char>(circuit), 4) +
           (is_low ? std::string("\7\1", 2) : std::string("\7\0", 2));
}

std::string five(std::string state) {
    state.resize(5, '\0');
    return state;
}

}  // namespace

// ---- the log

const Call& Model::Expect(const std::string& kind, int fd, long number, const std::string& data,
                          Endpoint peer) {
    Call call;
    call.kind = kind;
    call.fd = fd;
    call.number = number;
    call.data = data;
    call.peer = peer;
    if (m_Next == m_World.log.size()) {
        m_World.Differ(call.Text(), "nothing");
    }
    const Call& found = m_World.log[m_Next++];
    if (!found.Asks(call)) {
        m_World.Differ(call.Text(), found.Text());
    }
    return found;
}

bool Model::IsNext(const std::string& kind) const {
    return m_Next < m_World.log.size() && m_World.log[m_Next].kind == kind;
}

void Model::Close(int fd, bool with_shutdown) {
    if (with_shutdown) {
        Expect("shutdown", fd);
    }
    Expect("close", fd);
}

void Model::Option(int fd, int level, int option, const std::string& data, Endpoint about) {
    Expect("setsockopt", fd, level << 16 | option, data, about);
}

// ---- start and end

bool Model::Start(bool is_debug) {
    m_Next = 0;
    m_IsDebug = is_debug;
    if (!is_debug && Expect("daemon", -1).result != 0) {
        return false;
    }
    Expect("fopen", -1, 0, "/var/run/orvex.pid wt");
    const int probe = static_cast<int>(Expect("socket", -1, SOCK_DGRAM).result);
    if (probe >= 0) {
        m_Interface = Expect("ioctl", probe, 0, "eth0").from.ip;
        Close(probe);
    }
    Connect(m_Control, {LOOPBACK, 93});
    m_Server = static_cast<int>(Expect("socket", -1, SOCK_DGRAM).result);
    if (m_Server < 0) {
        return false;
    }
    Option(m_Server, SOL_SOCKET, SO_REUSEADDR, "1", {});
    Option(m_Server, IPPROTO_IP, IP_MULTICAST_IF, "", {});
    if (Expect("bind", m_Server, 0, "", {0, REQUEST_PORT}).result != 0) {
        Close(m_Server, true);
        m_Server = -1;
        return false;
    }
    Option(m_Server, IPPROTO_IP, IP_ADD_MEMBERSHIP, quad(GROUP), {m_Interface, 0});
    m_Client = static_cast<int>(Expect("socket", -1, SOCK_DGRAM).result);
    if (m_Client < 0) {
        return false;
    }
    Tell("SET\nCFG GPO\n");
    m_Swept = m_World.log[m_Next - 1].clock;
    BeginTurn();
    return true;
}

// In the reverse order of their construction.
void Model::End() {
    for (const int fd : {m_Client, m_Server}) {
        if (fd != -1) {
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
        m_World.Differ("the end", m_World.log[m_Next].Text());
    }
}

// ---- a turn

bool Model::Turn() {
    m_Next = 0;
    const Call select = m_World.log[m_Next++];
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
    if (select.result > 0 && m_IsInterfaceNew) {
        m_IsInterfaceNew = false;
        Option(m_Client, IPPROTO_IP, IP_MULTICAST_IF, "", {m_Interface, 0});
        Option(m_Server, IPPROTO_IP, IP_ADD_MEMBERSHIP, quad(GROUP), {m_Interface, 0});
    }
    if (!is_configured) {
        if (is_due(m_Server)) {
            Receive();
        }
        for (const Endpoint& server : m_Watched) {
            if (is_due(m_Remotes[server].fd)) {
                Forward(server);
            }
        }
    }
    BeginTurn();
    return true;
}

void Model::BeginTurn() {
    while (m_Control.fd == -1) {
        Expect("usleep", -1, PAUSE);
        Connect(m_Control, {LOOPBACK, 93});
        if (m_Control.fd != -1) {
            Tell("SET\nCFG GPO\n");
        }
    }
    const Micros now = m_World.log[m_Next - 1].clock;
    const bool is_sweep = milliseconds_between(m_Swept, now) > 27000;
    m_Swept = is_sweep ? now : m_Swept;
    m_Watched.clear();
    std::set<int> watched = {m_Control.fd, m_Server};
    for (const Channel& channel : m_Channels) {
        const Endpoint& server = channel.source.server;
        if (channel.source.kind != Source::REMOTE) {
            continue;
        }
        if (is_sweep && m_Remotes[server].fd == -1) {
            Reconnect(server);
        }
        if (m_Remotes[server].fd != -1 && watched.insert(m_Remotes[server].fd).second) {
            m_Watched.push_back(server);
        }
    }
    Expect("select", -1, WAIT, std::string(watched.begin(), watched.end()));
}

// Once for all channels that follow the server; after a failure the next of them tries.
void Model::Reconnect(const Endpoint& server) {
    Connection& remote = m_Remotes[server];
    Connect(remote, server);
    if (remote.fd == -1) {
        return;
    }
    for (const Channel& channel : m_Channels) {
        if (channel.source.kind == Source::REMOTE && channel.source.server == server) {
            Subscribe(remote, channel.source.gpi);
        }
    }
    Table();
}

void Model::Subscribe(const Connection& remote, int gpi) {
    Expect("send", remote.fd, 0, "ADD GPI " + std::to_string(gpi) + "\n");
}

// ---- connections

void Model::Connect(Connection& connection, Endpoint to) {
    connection = {};
    if (IsNext("no memory")) {
        Expect("no memory", -1);
        return;
    }
    const int fd = static_cast<int>(Expect("socket", -1, SOCK_STREAM).result);
    if (fd < 0) {
        return;
    }
    Option(fd, IPPROTO_TCP, TCP_NODELAY, "1", {});
    Option(fd, SOL_SOCKET, SO_KEEPALIVE, "1", {});
    const Call connect = Expect("connect", fd, 0, "", to);
    if (connect.result != 0) {
        Close(fd);
        return;
    }
    connection.fd = fd;
    connection.stream = connect.stream;
}

// The next line, after one look for more. A line behind which the connection has ended is lost.
bool Model::Take(Connection& connection, Line& line) {
    if (connection.fd == -1) {
        return false;
    }
    std::string& pending = connection.pending;
    if (Expect("poll", -1, 0, std::string(1, static_cast<char>(connection.fd))).result > 0) {
        const long room = LINE_ROOM - static_cast<long>(pending.size());
        const Call read = Expect("recv", connection.fd, room);
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

void Model::Table() {
    if (m_IsDebug) {
        Expect("fopen", -1, 0, "/var/log/gpiocli.txt wt");
    }
}

// ---- control lines

void Model::Tell(const std::string& line) {
    if (m_Control.fd != -1) {
        Expect("send", m_Control.fd, 0, line);
    } else {
        m_World.Count("lost: line, no control server");
    }
}

bool Model::Obey(const Line& line) {
    switch (line.kind) {
        case Line::CFG:
            return Configure(line.number, line.source);
        case Line::GPI:
            if (m_Channels[line.number].source.kind == Source::BUS) {
                m_Channels[line.number].input = five(line.state);
                std::string pins;
                for (size_t i = 0; i < 5 && std::string("HLhl").find(five(line.state)[i]) < 4;
                     ++i) {
                    const char state = line.state[i];
                    if (state == 'H' || state == 'L') {
                        pins += pin(m_Channels[line.number].source.address, INPUT_CIRCUITS[i],
                                    state == 'L');
                    }
                }
                if (!pins.empty()) {
                    Report("INDI" + big_endian(pins.size() / 6, 2) + pins);
                }
            }
            return false;
        case Line::GPO:
            if (line.number <= 8 && m_Channels[line.number].source.kind == Source::BUS) {
                m_Channels[line.number].output = five(line.state);
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
    const Source old = channel.source;
    if (source == old) {
        return false;
    }
    if (old.kind == Source::REMOTE) {
        Unfollow(number);
    } else if (old.kind == Source::BUS) {
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
    if (std::none_of(m_Channels, m_Channels + CHANNELS + 1, [&old](const Channel& c) {
            return c.source.kind == Source::REMOTE && c.source.server == old.server;
        })) {
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
    const Source& source = m_Channels[number].source;
    const bool is_new = m_Remotes.count(source.server) == 0;
    Connection& remote = m_Remotes[source.server];
    if (is_new) {
        Connect(remote, source.server);
        if (remote.fd == -1) {
            return;
        }
    }
    if (remote.fd != -1) {
        Subscribe(remote, source.gpi);
    }
    Table();
}

void Model::Forward(const Endpoint& server) {
    for (Line line; Take(m_Remotes[server], line);) {
        for (int number = 1; line.kind == Line::GPI && number <= CHANNELS; ++number) {
            const Source& source = m_Channels[number].source;
            if (source.kind == Source::REMOTE && source.server == server &&
                source.gpi == line.number) {
                const std::string text = "GPO " + std::to_string(number) + " " + line.state + "\n";
                Tell(text.substr(0, LONGEST_FORWARDED));
            }
        }
    }
}

// ---- the bus

void Model::Receive() {
    const Call& poll = Expect("poll", -1, 0, std::string(1, static_cast<char>(m_Server)));
    const Micros now = poll.clock;
    if (poll.result <= 0) {
        return;
    }
    const Call read = Expect("recvfrom", m_Server, PACKET_ROOM);
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
        Expect("sendto", m_Server, 0, packet.answer, read.from);
    }
    if (packet.is_delivered && !IsRepeated(read.from, packet.tid)) {
        if (!IsShortOfMemory() && packet.is_message) {
            Carry(packet);
        }
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
        m_Senders.push_back({from, tid, m_World.log[m_Next - 1].clock});
        return false;
    }
    if (found->tid == tid) {
        m_World.Count("kept: repetitions dropped");
        return true;
    }
    found->tid = tid;
    if (std::next(found) != m_Senders.end()) {  // the youngest one is not made younger
        found->since = m_World.log[m_Next - 1].clock;
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
        const Call& call = m_World.log[m_Next++];
        m_Tid += call.kind == "sendto" ? 1 : 0;
    }
    return true;
}

void Model::Carry(const BusPacket& packet) {
    if (packet.id == 0x52454144) {
        Reply(packet);
        return;
    }
    for (const BusItem& item : packet.items) {
        const size_t at = OUTPUT_CIRCUITS.find(static_cast<char>(item.tag & 255));
        for (int number = 1; packet.IsWrite() && at != std::string::npos && number <= CHANNELS;
             ++number) {
            const Source& source = m_Channels[number].source;
            if (source.kind != Source::BUS || source.address != item.tag >> 8) {
                continue;
            }
            const unsigned int value = item.type == 7 ? static_cast<unsigned int>(item.number) : 0;
            const unsigned int duration = (value & 31) * ((value & 128) != 0 ? 10 : 250);
            std::string state = "xxxxx";
            state[at] = (value & 64) != 0 ? 'L' : 'H';
            Tell("GPO " + std::to_string(number) + " " + state +
                 (duration != 0 ? " DURATION:" + std::to_string(duration) : "") + "\n");
        }
    }
}

void Model::Reply(const BusPacket& packet) {
    uint64_t request = 0;
    uint64_t data = 0;
    std::string pins;
    for (const BusItem& item : packet.items) {
        request = item.tag == 0xFFFFFFFF && item.type == 1 ? item.number : request;
        data = item.tag == 0xFFFFFFFC && item.type == 9 ? item.number : data;
        const char circuit = static_cast<char>(item.tag & 255);
        const size_t out = OUTPUT_CIRCUITS.find(circuit);
        const size_t in = INPUT_CIRCUITS.find(circuit);
        for (int number = CHANNELS; number >= 1; --number) {  // of several the last one answers
            const Channel& channel = m_Channels[number];
            if (channel.source.kind == Source::BUS && channel.source.address == item.tag >> 8 &&
                (out != std::string::npos || in != std::string::npos)) {
                const char state =
                    out != std::string::npos ? channel.output[out] : channel.input[in];
                pins += pin(item.tag >> 8, circuit, state == 'L' || state == 'l');
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
        Expect("sendto", m_Client, 0,
               std::string("\3\0\2\7", 4) + big_endian(m_Tid, 4) + std::string(8, '\0') + payload,
               {GROUP, ANSWER_PORT});
    }
}
