// Facts about the daemon and its surroundings on the device.
#pragma once

#include <netinet/tcp.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
    std::string problem;  // why it was not asked, or what prevented an answer
    bool has_answered = false;
    std::vector<int> stale_inputs;  // channels whose input differs from TQRD's
};

struct Facts {
    std::vector<RunningProgram> programs;
    std::vector<SocketRow> tcp;
    std::vector<SocketRow> udp;
    std::vector<Membership> memberships;
    std::vector<InterfaceAddress> interfaces;
    int syn_retries = 0;   // 0: not known
    std::string pid_file;  // content of /run/orvex.pid; empty: there is none
    CSvcAddress tqrd;      // the daemon's address of TQRD
    TableAnswer answer;    // its answer to us
    BusAnswer bus;
    std::vector<SocketRow> later_tcp;  // the tables again, after all that
    std::vector<SocketRow> later_udp;

    // The running daemons; normally one.
    std::vector<const RunningProgram*> Daemons() const;
    const RunningProgram* Daemon() const;

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
Facts Look(const CSvcAddress& tqrd, std::chrono::milliseconds limit);
