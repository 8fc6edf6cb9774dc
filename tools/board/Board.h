// The states that the board shows, and how it gets them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "net/SvcAddress.h"
#include "tools/board/EventStream.h"
#include "tools/board/History.h"
#include "tools/board/Json.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinStates.h"
#include "tools/bus/RepeatFilter.h"
#include "tools/tqrd/ChannelTable.h"
#include "tools/tqrd/TqrdClient.h"

struct BoardSettings {
    std::string iface;
    uint32_t group = DEFAULT_GROUP;  // host byte order
    std::optional<CSvcAddress> control;
    Names names;
};

// Listens to the bus, reads what is not reported, follows the control server, and passes changes to
// the history and to the viewers. Outputs are not reported, so it reads them: all in turn at a slow
// pace, and soon after a write. For one thread; never waits.
class Board {
public:
    static constexpr size_t MAX_DEVICES = 500;

    // History and stream must outlive the board.
    Board(BoardSettings settings, History& history, EventStream& stream);

    // What to wait for: the sockets of the bus and of the control server, -1 if closed. They may
    // change with every call.
    int BusSocket(size_t number) const;
    const TqrdClient& Control() const { return m_control; }

    void ReadBus();
    void ServeControl();

    // Does what is due: reads pins, watches the bus and the control server. Call it every TICK.
    static constexpr std::chrono::milliseconds TICK{50};
    void Tick();

    // Writes a pin for someone. False: it could not be sent.
    bool Set(uint32_t tag, WriteValue value, const std::string& who);
    // Counts a refused request, and records it for its reason, if it has one; of many in a minute,
    // only as many as the history has room for.
    void NoteRefusal(const std::string& who, const std::string& reason);

    // Sends viewers the state of the board itself.
    void TellStatus();
    OrderedJson StatusJson() const;

    const PinStates& Pins() const { return *m_states; }
    PinNotes NotesOf(uint32_t tag) const;
    // The pin as JSON for viewers.
    const std::string& TextOf(uint32_t tag, const PinState& state) const;
    // Who told a pin, for people.
    std::string TellerOf(uint32_t tag, const PinState& state) const;
    const std::map<std::string, Device>& Devices() const { return m_devices; }
    std::vector<std::string> AddressesOf(const std::string& device) const;
    const Names& GetNames() const { return m_settings.names; }
    const ChannelTable& Channels() const { return m_table; }
    bool HasControl() const { return m_settings.control.has_value(); }
    std::string ControlAddress() const;
    // Empty if all is well.
    const std::string& LinkProblem() const { return m_link_problem; }
    std::string ControlProblem() const;
    // Why the board should not be relied on; empty if it may be.
    std::vector<std::string> Complaints() const;

    struct Counts {
        std::map<std::pair<std::string, std::string>, uint64_t> messages;  // by kind and host
        uint64_t repeats = 0;
        uint64_t malformed = 0;
        uint64_t changes = 0;
        uint64_t questions = 0;
        uint64_t sets = 0;
        uint64_t refusals = 0;
        uint64_t overflow = 0;   // devices beyond what is kept
        int64_t last_heard = 0;  // ms since 1970
    };
    const Counts& GetCounts() const { return m_counts; }
    Counts& GetCounts() { return m_counts; }

private:
    struct Address {
        int64_t due = 0;      // when to read it next
        int64_t asked = 0;    // 0: no answer is expected
        unsigned misses = 0;  // unanswered reads in a row
        std::string owner;    // the device that answered last
    };

    void Take(Traffic& traffic);
    void TakeStates(Traffic& traffic, bool reply);
    void TakeChanges(const std::vector<PinChange>& changes);
    void TakeChange(const PinChange& change);
    bool HearDevice(const std::string& host, int64_t now);
    void SetLost(uint32_t address, bool lost);
    void SetPinLost(uint32_t tag, bool lost);
    void TellPin(uint32_t tag);
    void TellDevice(const std::string& host, EventKind kind, int64_t now);
    void Note(EventKind kind, int64_t now, const std::string& text);
    void WantNamed();
    void Watch(uint32_t address, int64_t due);
    void Reschedule(uint32_t address, Address& entry, int64_t due);
    void AskDue(int64_t now);
    void Answered(uint32_t address, const std::string& owner, int64_t now);
    void Miss(uint32_t address, Address& entry, int64_t now);
    void KeepLink(int64_t now);
    void LoseLink(int64_t now, const std::string& why);
    void FindLink(int64_t now);
    bool Send(const CMessage& message);
    void KeepControl(int64_t now);
    void TakeLine(const std::string& line, int64_t now);
    void TakeChannelState(int number, bool output);

    const BoardSettings m_settings;
    History& m_history;
    EventStream& m_stream;
    std::unique_ptr<BusLink> m_link;  // null: it can't be opened
    std::string m_link_problem = "not opened yet";
    bool m_link_lost = false;  // a gap is open
    unsigned m_looks = 0;
    std::unique_ptr<PinStates> m_states = std::make_unique<PinStates>();
    std::map<uint32_t, PinNotes> m_notes;
    mutable std::map<uint32_t, std::string> m_texts;  // as sent to viewers, by tag
    RepeatFilter m_repeats;
    const uint32_t m_request_id;
    std::map<uint32_t, Address> m_addresses;
    std::set<std::pair<int64_t, uint32_t>> m_schedule;  // due, address
    std::map<std::string, Device> m_devices;
    Counts m_counts;
    int64_t m_refusal_minute = 0;
    unsigned m_refusals_noted = 0;  // in that minute
    int64_t m_next_question = 0;
    int64_t m_next_look = 0;
    TqrdClient m_control;
    ChannelTable m_table;
    bool m_control_asked = false;
    int64_t m_next_connect = 0;
};

// Milliseconds since 1970.
int64_t NowMs();
