// What multiviewers are told.
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/Time.h"
#include "tools/tsl/Config.h"

// Sends displays when they change, and all of them every so often and after each connection. A
// display is sent once one of its pins is known. Of a pin that is not known, or no longer, it shows
// no tally. Never waits: a connection that takes nothing is ended and made again.
class Outputs {
public:
    using Log = std::function<void(const std::string&)>;

    explicit Outputs(Log log) : m_log(std::move(log)) {}

    // Replaces destinations and pins. Connections to destinations that stay are kept.
    void Configure(const std::vector<TslSend>& send, const std::vector<TslPin>& pins);

    // The level of a pin; none: not known.
    void Tell(uint32_t tag, std::optional<Level> level);

    void AddDescriptors(std::vector<pollfd>& fds) const;
    TimePoint NextTime() const;

    // Sends what is due.
    void Serve(const std::vector<pollfd>& fds);

private:
    // To one destination.
    struct Line {
        TslSend config;
        Descriptor socket;
        bool connecting = false;
        bool is_told = false;  // the problem
        std::string unsent;    // of a connection
        TimePoint due{};       // when to send everything, or to connect
        std::set<uint16_t> changed;
    };

    std::optional<Display> Show(const Line& line, uint16_t index) const;
    void Open(Line& line);
    void Connected(Line& line);
    void Fail(Line& line, const std::string& why);
    void Send(Line& line, const std::set<uint16_t>& indices);
    void SendBytes(Line& line, const std::string& bytes);

    const Log m_log;
    std::list<Line> m_lines;
    std::vector<TslPin> m_pins;
    std::map<uint32_t, std::optional<Level>> m_levels;  // by tag
    std::set<uint16_t> m_indices;                       // all
    std::set<uint16_t> m_shown;                         // one of their pins has been known
};
