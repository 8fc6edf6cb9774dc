// The program's connection to the bus.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "tools/base/Signals.h"
#include "tools/ctl/Console.h"
#include "tools/ctl/Traffic.h"

using TimePoint = std::chrono::steady_clock::time_point;

// Addresses in host byte order.
struct BusSettings {
    std::string iface;            // name or address; empty: as the system routes the group
    uint32_t group = 0xEFC0FF04;  // 239.192.255.4
    std::optional<uint32_t> to;   // send to this host instead of the group
    uint16_t send_port = 2060;
    uint16_t listen_port = 2055;
    double wait = 1;  // seconds, for answers
};

// Every failure is thrown as a Failure. Signals to end come through Wait() once StopOnSignals() was
// called. One to a process.
class BusLink {
public:
    enum class Event { Heard, TimedOut, Stopped };

    // Opens the sending end.
    BusLink(const BusSettings& settings, const Console& console);
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    // Opens the receiving end too: joins the group. The port is shared with other listeners of this
    // host. What asks for acknowledgement is acknowledged.
    void Listen();

    // SIGINT and SIGTERM end waiting from here on, not the program.
    void StopOnSignals();

    // Sends to the group, or to the one host, at that port. With reliable waits for
    // acknowledgement.
    void Send(const CMessage& message, uint16_t port, bool reliable);

    // The next message. What is none is passed over; it can't keep this from ending in time.
    Event Wait(Traffic& traffic, TimePoint deadline);

    const BusSettings& Settings() const { return m_settings; }

private:
    bool Receive(Traffic& traffic);

    const BusSettings m_settings;
    const Console& m_console;
    uint32_t m_iface;  // network byte order
    CRUdpLayer3Client m_client;
    CRUdpLayer3Server m_server;
    std::optional<Signals> m_signals;
};

// "10.0.0.1" for an address in host byte order.
std::string HostText(uint32_t address);

// The moment that many seconds from now.
TimePoint After(double seconds);
