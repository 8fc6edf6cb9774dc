#include "tests/world/Peers.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

Server::Server(World& world, Endpoint at) : m_World(world), m_Random(world.random) {
    world.servers[at] = this;
}

void Server::Accept(const std::shared_ptr<Stream>& stream) {
    Leave();
    m_Stream = stream;
}

void Server::Hear(Stream& stream) {
    for (size_t end; (end = stream.told.find('\n')) != std::string::npos;) {
        const std::string line = stream.told.substr(0, end);
        stream.told.erase(0, end + 1);
        Told(line);
    }
}

void Server::Write(Line line) {
    const std::shared_ptr<Stream> stream = m_Stream;
    if (stream == nullptr || stream->is_closed) {
        return;
    }
    std::string bytes = line.text;
    bytes += m_Random.Of({"\n", "\n", "\n", "\n", "\r\n", "\r", "\n\n\r"});
    if (!line.text.empty()) {
        stream->lines.push_back(std::move(line));
    }
    while (!bytes.empty()) {
        const uint32_t all = static_cast<uint32_t>(bytes.size());
        const uint32_t size = m_Random.OneIn(8) ? 1 + m_Random.Below(all) : all;
        Micros delay = 50 + m_Random.Time(2 * MS);
        delay += m_Random.OneIn(40) ? m_Random.Time(800 * MS) : 0;
        stream->last = std::max(stream->last, m_World.Now() + delay);
        m_World.After(stream->last - m_World.Now(), [stream, piece = bytes.substr(0, size)] {
            if (!stream->is_closed && stream->end < 0) {
                stream->arrived += piece;
            }
        });
        bytes.erase(0, size);
    }
}

void Server::WriteState(Line::Kind kind, int number, const std::string& state) {
    const std::string word = kind == Line::GPI ? "GPI " : "GPO ";
    Write({kind, word + Spell(static_cast<uint32_t>(number)) + " " + state, number, {}, state});
}

void Server::WriteMalformed() {
    Line line;
    line.text = m_Random.Of({"",
                             "GPI",
                             "GPI 33 LLLLL",
                             "GPI 0 LLLLL",
                             "GPI 5",
                             "GPI 5,LLLLL",
                             "GPI -1 LLLLL",
                             "CFG GPI 3 SRCA=1:2",
                             "CFG GPO",
                             "CFG GPO 33 SRCA=1:2",
                             "CFG GPO 0 SRCA=1:2",
                             "CFG GPO 3 NAME=x",
                             "gpi 1 LLLLL",
                             "GPO 33 LLLLL",
                             "CFG GPO 3 XSRCA=1:2",
                             "CFG GPO 3 srca=1:2",
                             "SET",
                             "SET HOST=x",
                             "SET A=\"NIC_IPADDR=9.9.9.9\"",
                             "GPI 4294967297 L",
                             "XYZ",
                             "GPO x LLLLL",
                             "CFG GPO 3 A=\"SRCA=1:2\"",
                             "SETNIC_IPADDR=9.9.9.9"});
    if (m_Random.OneIn(200)) {
        line.text = std::string(1900 + m_Random.Below(200), 'a');  // around the limit of 2,000
    } else if (m_Random.OneIn(400)) {
        line.text = std::string("GPI\0 1 L", 8);
    }
    Write(line);
}

void Server::Vanish() {
    const std::shared_ptr<Stream> stream = Leave();
    m_World.After(7875 * SECOND, [stream] {
        if (stream != nullptr && stream->end < 0) {
            stream->end = ETIMEDOUT;
        }
    });
}

void Server::GoDown() {
    const int error = m_Random.Of({0, 0, ECONNRESET});
    const std::shared_ptr<Stream> stream = Leave();
    if (stream != nullptr && !stream->is_closed) {
        if (error != 0 && m_Random.OneIn(2)) {
            stream->arrived.clear();
        }
        const Micros rest = std::max<Micros>(stream->last - m_World.Now(), 100);
        m_World.After(error != 0 ? 0 : rest, [stream, error] { stream->end = error; });
    }
    answer = m_Random.Of({ACCEPTS, ACCEPTS, LATE, REFUSES, REFUSES, SILENT, UNREACHABLE});
    const Micros limit = m_Random.OneIn(6) ? 600 * SECOND : 20 * SECOND;
    m_World.After(m_Random.Time(limit), [this] { answer = ACCEPTS; });
    ++m_World.faults;
}

std::string Server::AnyState() {
    if (m_Random.OneIn(12)) {
        return m_Random.Of({"", "L", "LH", "HLxHH", "hLlHH", "xLLLL", "LLLLLL", "HLHLH X",
                            "L DURATION:50", "HHHH\"", " LLLL"});
    }
    std::string state = "HHHHH";
    for (char& pin : state) {
        pin = m_Random.OneIn(2) ? 'L' : 'H';
    }
    return state;
}

std::string Server::Spell(uint32_t number) {
    char text[16];
    snprintf(text, sizeof text, m_Random.Of({"%u", "%u", "%u", "%u", "%u", "%u", "0x%X", "0%o"}),
             number);
    return text;
}

std::shared_ptr<Stream> Server::Leave() {
    if (m_Stream != nullptr) {
        m_Stream->is_left = true;
    }
    return std::exchange(m_Stream, nullptr);
}

void RemoteServer::Act() {
    m_World.OneOf({{1, "remote server down", [this] { GoDown(); }},
                   {1, "remote server vanishes", [this] { Vanish(); }},
                   {4, "malformed remote line", [this] { WriteMalformed(); }},
                   {194, "remote input", [this] {
                        const int input = m_Random.Of({1, 2, 3, 4, 256});
                        WriteState(Line::GPI, input, AnyState());
                    }}});
}

void RemoteServer::Told(const std::string& line) {
    if (line.rfind("ADD GPI ", 0) == 0) {
        WriteState(Line::GPI, atoi(line.c_str() + 8), AnyState());
    }
}

Tqrd::Tqrd(World& world) : Server(world, {LOOPBACK, 93}) {
    for (int n = 1; n <= CHANNELS; ++n) {
        m_Channels[n].source = AnySource();
    }
}

void Tqrd::Act() {
    const int number = 1 + static_cast<int>(m_Random.Below(CHANNELS));
    Channel& channel = m_Channels[number];
    m_World.OneOf({{3, "control server restarts", [this] { Restart(); }},
                   {7, "interface reported", [this] { TellInterface(); }},
                   {50, "channel configured",
                    [&] {
                        channel.source = AnySource();
                        for (uint32_t i = m_Random.OneIn(4) ? 2 : 1; i > 0; --i) {
                            Write(Configuration(number));
                        }
                    }},
                   {40, "malformed control line", [this] { WriteMalformed(); }},
                   {300, "output reported", [&] { WriteState(Line::GPO, number, AnyState()); }},
                   {600, "input", [&] {
                        channel.input = AnyState();
                        WriteState(Line::GPI, number, channel.input);
                    }}});
}

uint32_t Tqrd::AnyAddress() {
    for (int i = 0; i < 8; ++i) {
        const Source& source = m_Channels[1 + static_cast<int>(m_Random.Below(CHANNELS))].source;
        if (source.kind == Source::BUS) {
            return source.address;
        }
    }
    return m_Random.Below(0x1000000);
}

void Tqrd::TellInterface() {
    Line line;
    line.kind = Line::SET;
    line.address = m_Random.OneIn(20) ? AnyInterface() : m_World.device_ip;
    const std::string address = quad(line.address);
    line.text = "SET HOST=device,NIC_IPADDR=" + address + " MASK=255.255.255.0";
    if (m_Random.OneIn(10)) {
        line.text = "SET NIC_IPADDR:\"" + address + "\"";
    } else if (m_Random.OneIn(40)) {
        line.text = "SET NIC_IPADDR=10.0.0";
        line.address = 0;
    }
    Write(line);
}

void Tqrd::Told(const std::string& line) {
    char word = '\0';
    int number = 0;
    char state[8] = "";
    if (line == "SET") {
        TellInterface();
    } else if (line == "CFG GPO") {
        for (int n = 1; n <= CHANNELS; ++n) {
            if (m_Channels[n].source.kind != Source::NONE || m_Random.OneIn(2)) {
                Write(Configuration(n));
            }
        }
    } else if (sscanf(line.c_str(), "A%cD GPI %d", &word, &number) == 2) {
        WriteState(Line::GPI, number, m_Channels[number].input);
    } else if (sscanf(line.c_str(), "GPO %d %5s", &number, state) == 2) {
        std::string& output = m_Channels[number].output;
        for (size_t i = 0; i < 5 && state[i] != '\0'; ++i) {
            output[i] = state[i] == 'x' ? output[i] : state[i];
        }
        if (m_Random.OneIn(2)) {
            WriteState(Line::GPO, number, output);
        }
    }
}

Source Tqrd::AnySource() {
    Source source;
    const uint32_t kind = m_Random.Below(8);
    if (kind < 3) {
        source.kind = Source::BUS;
        source.address = m_Random.Of({1U, 2U, 0x102U, 0x1234U, 300U, 0xFFFFFFU});
    } else if (kind < 6) {
        source.kind = Source::REMOTE;
        source.server = REMOTES[m_Random.Below(4)];
        source.gpi = m_Random.Of({1, 1, 2, 3, 256});
    } else if (kind == 6) {
        source.server.ip = 0xFFFFFFFF;
    }
    return source;
}

Line Tqrd::Configuration(int number) {
    Line line;
    line.kind = Line::CFG;
    line.number = number;
    line.source = m_Channels[number].source;
    line.text = "CFG GPO " + Spell(static_cast<uint32_t>(number)) + " ";
    line.text += m_Random.Of({"", "", "NAME=\"a, b SRCA=9\" ", "GAIN:3,", "X=\\\",B=1 "});
    line.text += m_Random.OneIn(4) ? "SRCA:" : "SRCA=";
    const std::string source = Spelled(line.source);
    if (m_Random.OneIn(4)) {
        line.text += "\"" + source + "\"";
    } else {
        line.text += source;
        line.text += m_Random.Of({"", "", " SRCB=1.2.3.4", " SRCA=7:7", "  ,LAST"});
    }
    return line;
}

std::string Tqrd::Spelled(const Source& source) {
    std::string text;
    if (source.kind == Source::NONE) {
        return source.server.ip == 0
                   ? m_Random.Of({"none", "", "x", "-"})
                   : m_Random.Of({"x.y", "255.255.255.255", "10.0.0.256", "1.2.3.4.5:93/2"});
    }
    if (source.kind == Source::BUS) {
        text = Spell(source.address);
        if (m_Random.OneIn(2)) {
            text = Spell(source.address >> 8);
            text += ":" + Spell(source.address & 255);
        }
    } else {
        text = quad(source.server.ip);
        const bool is_standard = source.server.port == 93;
        const std::string gpi = "/" + std::to_string(source.gpi);
        const bool with_port = !is_standard || m_Random.OneIn(2);
        const bool with_gpi = source.gpi != 1 || m_Random.OneIn(2);
        if (is_standard && m_Random.OneIn(8)) {
            text += gpi + ":94";
        } else {
            text += with_port ? ":" + std::to_string(source.server.port) : "";
            text += with_gpi ? gpi : "";
        }
    }
    return (m_Random.OneIn(4) ? "tqs://" : "") + text;
}

void Tqrd::Restart() {
    GoDown();
    for (int n = 1; n <= CHANNELS; ++n) {
        if (m_Random.OneIn(6)) {
            m_Channels[n].source = AnySource();
        }
    }
}
