// The states that the board shows.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "net/SvcAddress.h"
#include "tools/board/ControlServer.h"
#include "tools/board/EventStream.h"
#include "tools/board/History.h"
#include "tools/board/Json.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinFollower.h"

struct BoardSettings {
    std::string iface;
    uint32_t group = DEFAULT_GROUP;  // host byte order
    std::optional<CSvcAddress> control;
    Names names;
};

// Follows the pins of the bus and the control server, and passes changes to the history and to the
// viewers. For one thread; never waits.
class Board {
public:
    // History and stream must outlive the board.
    Board(BoardSettings settings, History& history, EventStream& stream);

    // For a loop: wait until one of BusSockets() is readable, the socket of Control() is ready or
    // NextTime() has come, then call Serve(). It returns whether there may be more.
    std::vector<int> BusSockets() const { return m_follower.Descriptors(); }
    const ControlServer& Control() const { return m_control; }
    TimePoint NextTime() const { return std::min(m_follower.NextTime(), m_control.NextTime()); }
    bool Serve();

    // Writes a pin for someone. False: it could not be sent.
    bool Set(uint32_t tag, WriteValue value, const std::string& who);
    // Counts a refused request, and records it for its reason, if it has one; of many in a minute,
    // only as many as the history has room for.
    void NoteRefusal(const std::string& who, const std::string& reason);

    // Sends viewers the state of the board itself, if it has changed. Call it now and then: some of
    // it changes with time.
    void TellStatus();
    Json StatusJson() const;

    const PinStates& Pins() const { return m_follower.States(); }
    uint64_t ChangesOf(uint32_t tag) const;
    // The pin as JSON for viewers.
    const std::string& TextOf(uint32_t tag, const PinState& state) const;
    const PinFollower& Follower() const { return m_follower; }
    Json DeviceJsonOf(uint32_t host) const;
    // The names in this object stay where they are.
    const Names& GetNames() const { return m_settings.names; }
    void Rename(Names names);
    // Why the bus can't be relied on; empty if all is well.
    std::string LinkProblem() const { return m_follower.Problem(); }
    // Why the board should not be relied on; empty if it may be.
    std::vector<std::string> Complaints() const;

    struct Counts {
        std::map<std::pair<std::string, std::string>, uint64_t> messages;  // by kind and host
        uint64_t repeats = 0;
        uint64_t malformed = 0;
        uint64_t changes = 0;
        uint64_t sets = 0;
        uint64_t refusals = 0;
        double last_heard = 0;  // seconds since 1970; 0: nothing
    };
    const Counts& GetCounts() const { return m_counts; }

private:
    void ListenToBus();
    void WantNamed();
    void ListenToControl();
    void CountMessage(const Traffic& traffic, bool is_repeat);
    void TakeChange(const PinChange& change);
    void TakeDevice(uint32_t host, PinFollower::News news);
    void TakeLink();
    std::string LeftOutText() const;
    void TellPin(uint32_t tag);
    void Note(EventKind kind, const std::string& text, const std::string& host = "");

    BoardSettings m_settings;
    History& m_history;
    EventStream& m_stream;
    Counts m_counts;
    PinFollower m_follower;
    ControlServer m_control;
    bool m_is_down = false;                           // a gap is open
    std::string m_problem;                            // of the bus
    std::map<uint32_t, uint64_t> m_changes;           // by tag
    mutable std::map<uint32_t, std::string> m_texts;  // as sent to viewers, by tag
    std::string m_status;                             // the same of the board itself
    uint64_t m_left_out = 0;
    std::optional<TimePoint> m_left_out_at;
    TimePoint m_refusal_minute{};
    unsigned m_refusals_noted = 0;  // since then
};

// Milliseconds since 1970.
int64_t NowMs();
