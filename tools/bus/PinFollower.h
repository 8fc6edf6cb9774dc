// Follows the pins of a bus: what a program needs to show levels, or to act on them.
//
// Devices report inputs when they change, and nothing else. So a follower keeps reading the pins
// that matter. One policy decides for all programs what is known:
//
//   - An address is read every so often. A read that is not answered within the answer time is
//     repeated. After three of them nobody answers: its pins are unknown until somebody does, and
//     it is read as seldom as others.
//   - A device is silent if nobody answers for any of its addresses, or if it has none and was not
//     heard for three rounds.
//   - A device that was not heard for an hour is forgotten, unless it is the last that answered for
//     a wanted pin: its address may have changed.
//   - While the bus is down, and after it, all pins are unknown until they are told again.
//   - If datagrams were lost because they were not taken in time, everything is read again.
//   - Reads are spread: at most 100 pins, then a pause. Addresses that are due soon are read along,
//     so that an idle program sleeps.
//
// For a program with a loop: wait until one of Descriptors() is readable or NextTime() has come,
// then call Serve(). What happened is passed to the functions below, from within Serve().
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/bus/Answerers.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/DeviceTable.h"
#include "tools/bus/FollowPolicy.h"
#include "tools/bus/PinStates.h"
#include "tools/bus/Question.h"
#include "tools/bus/ReadPlan.h"
#include "tools/bus/RepeatFilter.h"

class PinFollower {
public:
    using Device = DeviceTable::Device;
    using News = DeviceTable::News;

    explicit PinFollower(const BusSettings& settings, const FollowPolicy& policy = {});

    // A message was heard, of any kind. is_repeat: it is the second copy of another.
    std::function<void(const Traffic&, bool is_repeat)> on_message;
    // What is known about a pin has changed. The first knowledge of a pin is a change too. Not
    // called for each pin when the bus goes down.
    std::function<void(const PinChange&)> on_change;
    // A device that was forgotten is no longer one of Devices().
    std::function<void(uint32_t host, News)> on_device;
    // The bus is down, back, or has another address. What States() says has changed before.
    std::function<void(const BusLink::Change&)> on_link;
    // Something else went wrong, such as a read that could not be sent.
    std::function<void(const std::string&)> on_trouble;
    // Pins that somebody other than devices tells better: what devices tell is ignored.
    std::function<bool(uint32_t tag)> is_told_elsewhere;

    // Stores and reads the pins, whatever else is heard.
    void Want(const PinRef& pins);

    // Processes what somebody other than a device told about pins; a report.
    void Tell(const Traffic& traffic) { Pass(m_states.Take(traffic, Now())); }

    // The sockets to wait for. They stay the same once the bus could be used.
    std::vector<int> Descriptors() const;
    TimePoint NextTime() const;

    // Takes what has arrived, at most so many messages, and does what is due. Never waits. Returns
    // whether it took that many: there may be more.
    bool Serve(int most = 500);

    // Reads pins now, until they are answered or the link's waiting time is over. Those that are
    // not answered are unknown then.
    void Read(const std::vector<PinRef>& pins);
    bool IsReading() const { return m_is_reading; }

    // Whether the message answers it; the pins that it did not get, as in Question.
    bool IsAnswer(const CMessage& message) const {
        return m_question && m_question->IsAnswer(message);
    }
    std::string Missing(const Names& names) const {
        return m_question ? m_question->Missing(names) : std::string();
    }

    // Throw BusError.
    void Write(uint32_t tag, const WriteValue& value);
    void Ask(uint32_t tag, uint32_t request_id);

    const PinStates& States() const { return m_states; }

    // Why the bus can't be relied on; empty if it can: it is down, or reads can't be sent.
    std::string Problem() const { return m_down.empty() ? m_trouble : m_down; }
    bool IsUp() const { return m_down.empty(); }

    const std::map<uint32_t, Device>& Devices() const { return m_devices.All(); }

    // Who answered for an address last; 0: nobody.
    uint32_t OwnerOf(uint32_t address) const { return m_devices.OwnerOf(address); }
    // Whether it is read, and nobody answers.
    bool IsUnanswered(uint32_t address) const { return m_plan.IsUnanswered(address); }
    // Addresses for which more than one host answers.
    std::map<uint32_t, std::set<uint32_t>> Shared() const { return m_answerers.Shared(Now()); }

    // Reads that were sent; messages about pins, and of devices, for which there was no room.
    uint64_t Reads() const { return m_reads; }
    // Datagrams that this host has lost, because they were not taken in time.
    uint64_t Lost() const { return m_lost; }
    uint64_t PassedOver() const { return m_states.PassedOver() + m_devices.PassedOver(); }

private:
    bool Open();
    void TakeMessage(TimePoint now);
    void TakeTold(Kind kind, TimePoint now);
    std::vector<uint32_t> AddressesIn(const CMessage& message) const;
    void Follow(uint32_t address, TimePoint now);
    void Pass(const std::vector<PinChange>& changes);
    void PassNews(uint32_t host, News news);
    void FindSilent(TimePoint now);

    void FollowLink(TimePoint now);
    void ForgetAll(TimePoint now);
    void NoteLost();
    void ReadDue(TimePoint now);
    void ReadAddress(uint32_t address, TimePoint now, std::vector<uint32_t>& ask);
    void NoteRead(const std::vector<uint32_t>& tags, TimePoint now);
    std::vector<uint32_t> TagsOf(uint32_t address, bool with_inputs) const;
    void TendQuestion(TimePoint now);
    void EndQuestion(TimePoint now);
    void Send(const std::vector<uint32_t>& tags, uint32_t request_id);
    void NoteTrouble(const std::string& text);

    const BusSettings m_settings;
    const FollowPolicy m_policy;
    std::unique_ptr<BusLink> m_link;  // null: it can't be opened yet
    TimePoint m_open{};               // when to try again
    std::string m_down;               // why; empty: the bus is up
    std::string m_trouble;            // why the last read was not sent
    Traffic m_traffic;
    PinStates m_states;
    RepeatFilter m_repeats;
    Answerers m_answerers;
    DeviceTable m_devices;
    std::set<uint32_t> m_wanted;  // addresses
    uint64_t m_lost = 0;          // datagrams, in this host

    const uint32_t m_round_id;  // reads of addresses
    const uint32_t m_pin_id;    // reads after writes
    ReadPlan m_plan;
    TimePoint m_round{};  // when to look for silent devices
    uint64_t m_reads = 0;
    std::optional<Question> m_question;
    bool m_is_reading = false;
    TimePoint m_asked{};  // when it began
};
