// Facts about the daemon and its surroundings on the device.
#pragma once

#include <netinet/tcp.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/bus/Interface.h"
#include "tools/doctor/Firewall.h"
#include "tools/doctor/NetworkTables.h"
#include "tools/doctor/Processes.h"
#include "tools/tqrd/AskTable.h"

// How the daemon is expected to serve the bus.
struct ExpectedBus {
    uint32_t group = 0;  // network byte order
    std::string device = "eth0";
};

// The daemon's answer when asked on the bus for the pins of its channels.
struct BusAnswer {
    bool was_asked = false;
    std::string problem;            // why it was not asked, or what prevented an answer
    bool has_answered = false;      // from an address of this host
    std::vector<int> stale_inputs;  // channels whose input differs from TQRD's

    // Other hosts that answer for addresses of these channels; their addresses in network byte
    // order.
    std::map<uint32_t, std::set<uint32_t>> others;
};

struct Facts {
    std::vector<RunningProgram> programs;  // in this network namespace
    std::vector<RunningProgram> daemons_elsewhere;
    std::vector<SocketRow> tcp;
    std::vector<SocketRow> udp;
    std::vector<Membership> memberships;
    std::vector<InterfaceAddress> interfaces;
    int syn_retries = 0;   // 0: not known
    int bind_error = 0;    // why no daemon could be started now
    Route route;           // to the group
    std::string pid_file;  // content of /run/orvex.pid; empty: there is none
    CSvcAddress tqrd;      // the daemon's address of TQRD
    TableAnswer answer;    // its answer to us
    BusAnswer bus;
    Passage requests = Passage::Unknown;  // to port 2060 of the group, if it did not answer
    Passage reports = Passage::Unknown;   // to port 2055
    std::vector<SocketRow> later_tcp;     // the tables again, after all that
    std::vector<SocketRow> later_udp;

    // The running daemons; normally one.
    std::vector<const RunningProgram*> Daemons() const;
    const RunningProgram* Daemon() const;

    // A program that can't be seen has the daemon's port: a daemon in another container, perhaps.
    bool MayHideDaemon() const;

    // The program that owns the socket; null if that is not visible.
    const RunningProgram* OwnerOf(const SocketRow& socket) const;

    // The daemon's TCP socket to that address; null if it has none or hides them.
    const SocketRow* DaemonSocket(uint32_t ip, uint16_t port) const;

    // The interface with the address; empty if there is none.
    std::string DeviceOf(uint32_t ip) const;

    // The interface's first address, 0 if it has none; none if there is no such interface.
    std::optional<uint32_t> AddressOf(const std::string& device) const;
};

// Examines the system and queries TQRD, at the daemon's -r or else at the given address. Does not
// query the bus, which would join the group, and does not read the table again.
Facts Look(const CSvcAddress& tqrd, const ExpectedBus& bus, std::chrono::milliseconds limit);

// The interface of the bus: the one whose address TQRD sends, if there is one, or the expected one.
std::string BusDevice(const Facts& facts, const ExpectedBus& bus);

// Whether a firewall of this host drops the bus.
void TryPorts(const ExpectedBus& bus, Facts& facts);
