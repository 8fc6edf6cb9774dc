#include "tools/doctor/Facts.h"

#include <arpa/inet.h>

#include <algorithm>
#include <fstream>

#include "protocol/numbers.h"
#include "tqr/tqr_util.h"

namespace {

const char* const DAEMON_NAME = "orvex";

// The daemon's -r: "ip", "ip:port" or "port", as the daemon reads it.
CSvcAddress ReadServer(const std::string& value, CSvcAddress server) {
    const size_t colon = value.find(':');
    const bool has_ip = colon != std::string::npos || value.find('.') != std::string::npos;
    if (has_ip) {
        server.SetHost(ntohl(inet_addr(value.substr(0, colon).c_str())));
    }
    if (!has_ip || colon != std::string::npos) {
        const std::string port = has_ip ? value.substr(colon + 1) : value;
        const unsigned long number = tqr_strtoul(port.c_str(), nullptr, 0);
        if (number != 0) {
            server.SetPort(static_cast<unsigned short>(number));
        }
    }
    return server;
}

template <typename Value>
Value ReadValue(const char* path) {
    std::ifstream file(path);
    Value value{};
    file >> value;
    return value;
}

}  // namespace

std::vector<const RunningProgram*> Facts::Daemons() const {
    std::vector<const RunningProgram*> daemons;
    for (const RunningProgram& program : programs) {
        if (program.name == DAEMON_NAME) {
            daemons.push_back(&program);
        }
    }
    return daemons;
}

const RunningProgram* Facts::Daemon() const {
    const auto daemons = Daemons();
    return daemons.empty() ? nullptr : daemons.front();
}

bool Facts::MayHideDaemon() const {
    return Daemon() == nullptr && std::any_of(udp.begin(), udp.end(), [this](const SocketRow& row) {
               return row.local_port == BUS_PORT && row.local_ip == INADDR_ANY &&
                      OwnerOf(row) == nullptr;
           });
}

const RunningProgram* Facts::OwnerOf(const SocketRow& socket) const {
    for (const RunningProgram& program : programs) {
        if (program.sockets.count(socket.inode) != 0) {
            return &program;
        }
    }
    return nullptr;
}

const SocketRow* Facts::DaemonSocket(uint32_t ip, uint16_t port) const {
    for (const SocketRow& row : tcp) {
        if (row.remote_ip == ip && row.remote_port == port && Daemon() != nullptr &&
            Daemon()->sockets.count(row.inode) != 0) {
            return &row;
        }
    }
    return nullptr;
}

std::string Facts::DeviceOf(uint32_t ip) const {
    for (const InterfaceAddress& entry : interfaces) {
        if (entry.ip == ip && ip != 0) {
            return entry.device;
        }
    }
    return {};
}

std::optional<uint32_t> Facts::AddressOf(const std::string& device) const {
    for (const InterfaceAddress& entry : interfaces) {
        if (entry.device == device) {
            return entry.ip;
        }
    }
    return std::nullopt;
}

std::string BusDevice(const Facts& facts, const ExpectedBus& bus) {
    const std::string named = facts.DeviceOf(facts.answer.table.InterfaceAddress().value_or(0));
    return named.empty() ? bus.device : named;
}

void TryPorts(const ExpectedBus& bus, Facts& facts) {
    const uint32_t address = facts.AddressOf(BusDevice(facts, bus)).value_or(0);
    if (address != 0) {
        facts.requests = TryPort(bus.group, address, BUS_PORT);
        facts.reports = TryPort(bus.group, address, REPORT_PORT);
    }
}

Facts Look(const CSvcAddress& tqrd, const ExpectedBus& bus, std::chrono::milliseconds limit) {
    Facts facts;
    for (RunningProgram& program : ReadPrograms()) {
        if (!program.is_elsewhere) {
            facts.programs.push_back(std::move(program));
        } else if (program.name == DAEMON_NAME) {
            facts.daemons_elsewhere.push_back(std::move(program));
        }
    }
    facts.tcp = ReadSockets("tcp");
    facts.udp = ReadSockets("udp");
    facts.memberships = ReadMemberships();
    facts.interfaces = ReadInterfaces();
    facts.syn_retries = ReadValue<int>("/proc/sys/net/ipv4/tcp_syn_retries");
    facts.pid_file = ReadValue<std::string>("/run/orvex.pid");
    facts.route = FindRoute(ntohl(bus.group));
    const RunningProgram* const daemon = facts.Daemon();
    facts.bind_error = daemon == nullptr ? TryToBind(BUS_PORT) : 0;
    const std::string server = daemon == nullptr ? std::string() : daemon->Option("-r");
    facts.tqrd = server.empty() ? tqrd : ReadServer(server, tqrd);
    facts.answer = AskTable(facts.tqrd, limit);
    return facts;
}
