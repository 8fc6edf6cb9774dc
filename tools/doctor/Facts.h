// What can be seen of the daemon and of what it depends on, on the device.
#pragma once

#include <netinet/tcp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/doctor/NetworkTables.h"
#include "tools/doctor/Processes.h"
#include "tools/tqrd/AskTable.h"

// The bus as the daemon is expected to serve it.
struct ExpectedBus {
    uint32_t group = 0;  // network byte order
    std::string device = "eth0";
};

// What the bus answered when the daemon was asked for the pins of its channels.
struct BusAnswer {
    bool was_asked = false;
    std::string problem;  // why it was not, or what stood in the way
    bool has_answered = false;
    std::vector<int> stale_inputs;  // channels whose input differs from what TQRD tells
};

struct Facts {
    std::vector<RunningProgram> programs;
    std::vector<SocketRow> tcp;
    std::vector<SocketRow> udp;
    std::vector<Membership> memberships;
    std::vector<InterfaceAddress> interfaces;
    int syn_retries = 0;   // 0: not known
    std::string pid_file;  // what /run/orvex.pid says; empty: there is none
    CSvcAddress tqrd;      // where TQRD is for the daemon
    TableAnswer answer;    // what it tells us
    BusAnswer bus;
    std::vector<SocketRow> later_udp;  // the table once more, after all that

    // The running daemons; one when all is well.
    std::vector<const RunningProgram*> Daemons() const;
    const RunningProgram* Daemon() const;

    // The program that has the socket, null when that can't be seen.
    const RunningProgram* OwnerOf(const SocketRow& socket) const;

    // The daemon's TCP socket to that place, null when it has none or does not show them.
    const SocketRow* DaemonSocket(uint32_t ip, uint16_t port) const;

    // The interface that has the address, empty when none has.
    std::string DeviceOf(uint32_t ip) const;
};

// Looks at the system and asks TQRD, at the daemon's -r or else at the given place. Does not ask
// the bus, which would join the group, and does not look for the second time.
Facts Look(const CSvcAddress& tqrd, std::chrono::milliseconds limit);
