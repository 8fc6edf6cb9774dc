// The control server that the board follows.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "net/SvcAddress.h"
#include "tools/base/Time.h"
#include "tools/bus/PinName.h"
#include "tools/bus/Traffic.h"
#include "tools/tqrd/ChannelTable.h"
#include "tools/tqrd/TqrdClient.h"

// Keeps a connection to the server, and learns its channels and the states of their pins. In a
// loop: wait until GetDescriptor() is ready for Events() or NextTime() has come, then call Serve(),
// which closes and replaces the descriptor as it needs to. Never waits.
class ControlServer {
public:
    // Without a server, nothing ever happens.
    explicit ControlServer(std::optional<CSvcAddress> server);

    std::function<void()> on_status;                      // connected, or not any more
    std::function<void(int number)> on_channel;           // a channel has changed
    std::function<void(const PinRef& pins)> on_pins;      // a channel uses that address of the bus
    std::function<void(const Traffic& traffic)> on_told;  // states of pins, as a report of the bus
    // The connection is lost: from now on what devices tell about these pins counts.
    std::function<void(const std::vector<PinRef>& pins)> on_lost;

    void Serve();
    int GetDescriptor() const { return m_client.GetDescriptor(); }
    short Events() const { return m_client.Events(); }
    TimePoint NextTime() const;

    bool IsFollowed() const { return m_server.has_value(); }
    // "10.0.0.1:93"
    std::string Address() const;
    // Empty if all is well, or if there is none.
    std::string Problem() const;
    const ChannelInfo& Channel(int number) const { return m_table.Channel(number); }
    // Whether it sends the states of that pin.
    bool Tells(uint32_t tag) const { return m_told.count(tag) != 0; }

private:
    void KeepConnection();
    void TakeLine(const std::string& line);
    void TakeState(int number, bool output);

    const std::optional<CSvcAddress> m_server;
    TqrdClient m_client;
    ChannelTable m_table;
    std::set<uint32_t> m_told;
    std::set<uint32_t> m_addresses;  // of channels
    bool m_is_asked = false;
    TimePoint m_next_connect{};
};
