// What the control server has sent: its channels and settings, parsed as the daemon does.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "protocol/source.h"

// A channel according to its lines. Texts are as the server wrote them.
struct ChannelInfo {
    bool is_configured = false;  // a line with a source has come
    std::string line;            // that line; without one, the last that the daemon ignores
    std::string source;          // the value in it, with its quotes
    ChannelConfig config = {};   // how the daemon reads the line
    std::string output;          // state of its GPO, one character per pin; empty: not sent
    std::string input;           // state of its GPI
};

// Processes lines in the order of arrival. Channel numbers are 1 to CHANNEL_COUNT.
class ChannelTable {
public:
    // The subject of a line. Other: the daemon would ignore it.
    enum class Kind { Other, Settings, Configuration, Input, Output };
    struct Subject {
        Kind kind = Kind::Other;
        int number = 0;  // of the channel, 0 for settings and others
    };

    // Processes a line from the server, without its end.
    Subject Take(const std::string& line);

    const ChannelInfo& Channel(int number) const { return m_channels[Index(number)]; }

    // The numbers of the channels of that kind.
    std::vector<int> Find(ChannelKind kind) const;

    // The value of NIC_IPADDR, the address of the bus interface, in network byte order; 0 if it is
    // malformed. None: not sent.
    std::optional<uint32_t> InterfaceAddress() const { return m_interface; }

    // What does not work at the server, which orvex-gpio tells; empty: nothing.
    const std::string& Problems() const { return m_problems; }

private:
    static size_t Index(int number) { return static_cast<size_t>(number - 1); }
    Subject TakeConfiguration(const char* text);
    Subject TakeState(const char* text, Kind kind);

    std::array<ChannelInfo, CHANNEL_COUNT> m_channels;
    std::optional<uint32_t> m_interface;
    std::string m_problems;
};
