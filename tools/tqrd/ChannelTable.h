// What the control server has told: its channels and settings, read as the daemon reads them.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "app/source.h"

// A channel as its lines tell it. Texts are as the server wrote them.
struct ChannelInfo {
    bool is_configured = false;  // a line with a source has come
    std::string line;            // that line
    std::string source;          // the value in it, with its quotes
    ChannelConfig config = {};   // what the daemon makes of the line
    std::string output;          // state of its GPO, one character a pin; empty: not told
    std::string input;           // of its GPI
};

// Takes lines in the order in which they come. Numbers of channels are 1 to CHANNEL_COUNT.
class ChannelTable {
public:
    // What a line was about. Other: the daemon would ignore it.
    enum class Kind { Other, Settings, Configuration, Input, Output };
    struct Subject {
        Kind kind = Kind::Other;
        int number = 0;  // of the channel, 0 for settings and others
    };

    // Takes a line of the server, without its end.
    Subject Take(const std::string& line);

    const ChannelInfo& Channel(int number) const { return m_channels[Index(number)]; }

    // The numbers of the channels of that kind.
    std::vector<int> Find(ChannelKind kind) const;

    // The value of NIC_IPADDR, the address of the bus interface; network byte order, 0 when it
    // can't be read. None: not told.
    std::optional<uint32_t> InterfaceAddress() const { return m_interface; }

private:
    static size_t Index(int number) { return static_cast<size_t>(number - 1); }
    Subject TakeConfiguration(const char* text);
    Subject TakeState(const char* text, Kind kind);

    std::array<ChannelInfo, CHANNEL_COUNT> m_channels;
    std::optional<uint32_t> m_interface;
};

// The number of the input that a channel of KIND_REMOTE follows: the server is asked for 8 bits of
// it.
int RemoteInput(const ChannelConfig& config);

// "10.0.0.9:94", the server of a channel of KIND_REMOTE.
std::string RemoteServer(const ChannelConfig& config);

// What drives the output, in words: "writes on the bus to 1:2", "input 3 of 10.0.0.9:94" or
// "nothing".
std::string DescribeSource(const ChannelConfig& config);
