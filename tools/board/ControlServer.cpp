#include "tools/board/ControlServer.h"

#include <utility>

#include "tools/bus/Interface.h"

namespace {

const double CONNECT_PACE = 3;  // seconds
const std::chrono::milliseconds CONNECT_LIMIT{2000};
const size_t MAX_ADDRESSES = 1000;

bool IsLow(char level) {
    return level == 'L' || level == 'l';
}

}  // namespace

ControlServer::ControlServer(std::optional<CSvcAddress> server) : m_server(server) {}

std::string ControlServer::Address() const {
    return m_server ? HostText(static_cast<uint32_t>(m_server->GetHost())) + ":" +
                          std::to_string(m_server->GetPort())
                    : "";
}

std::string ControlServer::Problem() const {
    if (!m_server || m_client.IsConnected()) {
        return "";
    }
    return m_client.Problem().empty() ? "not connected yet" : m_client.Problem();
}

TimePoint ControlServer::NextTime() const {
    return !m_server ? TimePoint::max() : m_client.IsOpen() ? m_client.Deadline() : m_next_connect;
}

void ControlServer::Serve() {
    if (!m_server) {
        return;
    }
    m_client.Serve();
    std::string line;
    while (m_client.Next(line)) {
        TakeLine(line);
    }
    KeepConnection();
}

void ControlServer::KeepConnection() {
    if (!m_client.IsOpen() && m_is_asked) {
        m_is_asked = false;
        m_table = ChannelTable();
        std::vector<PinRef> pins;
        for (const uint32_t tag : std::exchange(m_told, {})) {
            pins.push_back({tag >> 8, static_cast<uint8_t>(tag)});
        }
        on_lost(pins);
        on_status();
    }
    if (!m_client.IsOpen() && Now() >= m_next_connect) {
        m_next_connect = After(CONNECT_PACE);
        m_client.Connect(*m_server, CONNECT_LIMIT);
    }
    if (m_client.IsConnected() && !m_is_asked) {
        m_is_asked = true;
        m_client.Send("SET");
        m_client.Send("CFG GPO");
        on_status();
    }
}

void ControlServer::TakeLine(const std::string& line) {
    const ChannelTable::Subject subject = m_table.Take(line);
    if (subject.number < 1 || subject.number > CHANNEL_COUNT) {
        return;
    }
    const ChannelConfig& config = m_table.Channel(subject.number).config;
    const bool configured = subject.kind == ChannelTable::Kind::Configuration;
    if (configured && config.proto == KIND_BUS) {
        m_client.Send("ADD GPI " + std::to_string(subject.number));
        if (m_addresses.size() < MAX_ADDRESSES && m_addresses.insert(config.ach).second) {
            on_pins({static_cast<uint32_t>(config.ach), std::nullopt});
        }
    } else if (!configured && subject.kind != ChannelTable::Kind::Other) {
        TakeState(subject.number, subject.kind == ChannelTable::Kind::Output);
    }
    on_channel(subject.number);
}

// The control server's states are the most reliable, and come first.
void ControlServer::TakeState(int number, bool output) {
    const ChannelInfo& channel = m_table.Channel(number);
    const std::string& state = output ? channel.output : channel.input;
    if (channel.config.proto != KIND_BUS || channel.config.ach >= 0xFFFFFF) {
        return;
    }
    Traffic traffic;
    traffic.time = TimeOfDay();
    traffic.message.SetId(ID_REPORT);
    traffic.message.SetRoutingInfo1(m_server->GetHost(), 0, 0, 0);
    const uint32_t first = output ? FIRST_OUTPUT_CIRCUIT : FIRST_INPUT_CIRCUIT;
    for (uint32_t i = 0; i < state.size() && i < PIN_COUNT; ++i) {
        const uint32_t tag = channel.config.ach << 8 | (first - i);
        if (IsLow(state[i]) || state[i] == 'H' || state[i] == 'h') {
            m_told.insert(tag);
            traffic.message.SetByte(tag, IsLow(state[i]) ? 1 : 0);
        }
    }
    on_told(traffic);
}
