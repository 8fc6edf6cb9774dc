// A program's connection to the bus.
//
// A program without a loop of its own calls Wait():
//
//     BusLink link(settings);
//     link.Listen(BusLink::Hear::Reports);
//     link.Send(question, BUS_PORT, false);
//     while (link.Wait(traffic, deadline) == BusLink::Event::Heard) { ... }
//
// A program with a loop (select(), poll(), asio) waits until one of Descriptors() is readable or
// NextTime() has come, then calls Take() until it returns false, and Tend(). Neither of them waits.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "protocol/numbers.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "tools/base/Time.h"
#include "tools/bus/BusError.h"
#include "tools/bus/Interface.h"
#include "tools/bus/InterfaceNews.h"
#include "tools/bus/Traffic.h"

// Addresses in host byte order.
struct BusSettings {
    std::string iface;  // name or address; empty: the one to which the system routes the group
    uint32_t group = DEFAULT_GROUP;
    std::optional<uint32_t> to;  // send to this host instead of the group
    uint16_t send_port = BUS_PORT;
    uint16_t listen_port = REPORT_PORT;
    double wait = 1;  // seconds, for acknowledgements and answers

    // Receives progress messages, for fault finding. May be empty.
    std::function<void(const std::string&)> trace;

    // Is called for each received packet that contains no message. May be empty.
    std::function<void()> ignored;
};

// Failures are thrown as BusError. For one thread.
class BusLink {
public:
    // What to listen to. Requests are the writes and reads of others to the group: only the device
    // itself hears what is sent to its own address. This program's own requests to the group are
    // heard too, from this host's address.
    enum class Hear { Reports, ReportsAndRequests };

    enum class Event { Heard, Changed, Other, TimedOut };

    // The interface went down or came up, with a text such as "eth0 is down".
    struct Change {
        bool up;
        std::string text;
    };

    // Opens the sending end.
    explicit BusLink(const BusSettings& settings);
    BusLink(const BusLink&) = delete;
    BusLink& operator=(const BusLink&) = delete;

    // Opens the receiving end too: joins the group. Other listeners of this host can share the
    // ports. Reports that ask for acknowledgement are acknowledged; requests are not, because
    // devices do that.
    void Listen(Hear what);

    // Sends to the group, or to the one host, at that port. A reliable message is repeated until it
    // is acknowledged, which blocks up to the settings' waiting time; from a group, the first
    // acknowledgement counts. Others are passed to the system, and may get lost.
    void Send(const CMessage& message, uint16_t port, bool reliable);

    // The sockets that Listen() opened. They stay the same, whatever happens to the interface.
    std::vector<int> Descriptors() const;

    // Takes the message that arrived first, of those that wait. False if there is none. Skips
    // packets without a message, but only so many at a time that a flood of them can't hold the
    // caller.
    bool Take(Traffic& traffic);

    // How many datagrams were lost because earlier ones were not taken in time. The system buffers
    // as many as net.core.rmem_max allows.
    uint64_t Lost() const;

    // When Tend() has to be called next; TimePoint::max() while all is well, if the system tells
    // of changes.
    TimePoint NextTime() const { return m_look; }

    // Watches the interface: when it is back after it was down, gone or without an address, joins
    // the group again. Returns what changed since the last call.
    std::optional<Change> Tend();

    // Waits for the next message or a change of the interface until the deadline. Also returns when
    // the other descriptor is readable, such as that of Signals.
    Event Wait(Traffic& traffic, TimePoint deadline, int other = -1);

    // What changed when Wait() last returned Changed.
    const Change& LastChange() const { return m_change; }

    const BusSettings& Settings() const { return m_settings; }

private:
    // Hears requests without answering them.
    class Overhearer : public CRUdpLayer3Server {
        void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                            bool& positive) override;
    };

    void OpenClient();
    void OpenServer(CRUdpLayer3Server& server, uint16_t port, const char* host);
    void Join(CRUdpLayer3Server& server);
    void LookLater();
    std::optional<Change> Look();
    bool Rejoin(const Interface& found);
    bool AreRequestsFirst();
    bool TakeFrom(CRUdpLayer3Server& server, uint16_t port, Traffic& traffic);
    std::string DownText(const Interface& found) const;
    void Trace(const std::string& text) const;

    const BusSettings m_settings;
    Interface m_interface;  // as it was when the group was joined
    InterfaceNews m_news;
    CRUdpLayer3Client m_client;
    CRUdpLayer3Server m_reports;
    Overhearer m_requests;
    bool m_up = true;
    // When the next datagrams of the sockets arrived, ns since 1970; none: not asked yet.
    std::optional<int64_t> m_report_arrival;
    std::optional<int64_t> m_request_arrival;
    Change m_change{true, {}};
    TimePoint m_look = TimePoint::max();
    TimePoint m_looked = Now();
};
