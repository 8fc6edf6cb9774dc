// The devices of a bus: when they were heard, and for which addresses they answer.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "tools/base/Histogram.h"
#include "tools/base/Time.h"

// Hosts are in host byte order. Memory is bounded: only the first MAX_DEVICES are stored, and
// answers count for those alone.
class DeviceTable {
public:
    static constexpr size_t MAX_DEVICES = 1000;

    // A host that has told pins.
    struct Device {
        double first = 0;   // seconds since 1970
        double last = 0;    // when it was heard last, seconds since 1970
        TimePoint heard{};  // the same
        bool is_silent = false;
        double since = 0;        // when it was found silent, or heard (again); seconds since 1970
        uint64_t messages = 0;   // second copies included
        uint64_t answers = 0;    // to the reads of this program, by address
        uint64_t missed = 0;     // reads without an answer
        double answer_time = 0;  // seconds, smoothed; 0: not known
        Histogram answer_times;
        uint32_t told = 0;              // an address in its last message
        std::set<uint32_t> addresses;   // for which it answered last
        std::set<uint32_t> unanswered;  // those of them for which nobody answers now
        bool is_replaced = false;       // another host answers for what it had
    };
    enum class News { First, Silent, Back, Forgotten };

    // The device told pins, of this address among others. Returns First or Back, or none if it was
    // heard before.
    std::optional<News> Hear(uint32_t host, uint32_t address, double time, TimePoint now);

    // It answered a read of the address, after so many seconds; none: not known.
    void Answer(uint32_t address, uint32_t host, std::optional<double> seconds);

    // The device of the address did not answer a read of it. is_unanswered: nor those before, so
    // that nobody answers for the address now. Returns the device if that makes it silent: nobody
    // answers for any of its addresses, and it was not heard since the limit. A device may be heard
    // although its answers get lost.
    std::optional<uint32_t> Miss(uint32_t address, bool is_unanswered, TimePoint limit);

    // Finds devices that are silent without a missed answer: they have no address, and were not
    // heard since the limit. Returns those that were not silent before. What has another host, as
    // after a change of the device's own address, is not missed under the old one.
    std::vector<uint32_t> FindSilent(TimePoint limit);

    // Forgets silent devices that were not heard since the limit, unless one of them was the last
    // to answer for a wanted address, and hosts that have been replaced and were not heard since
    // replaced. Returns those that it forgot.
    std::vector<uint32_t> Forget(TimePoint limit, TimePoint replaced,
                                 const std::function<bool(uint32_t)>& is_wanted);

    const std::map<uint32_t, Device>& All() const { return m_devices; }

    // Who answered for an address last; 0: nobody.
    uint32_t OwnerOf(uint32_t address) const;

    // Messages of devices for which there was no room.
    uint64_t PassedOver() const { return m_passed_over; }

private:
    Device* FindOwner(uint32_t address);

    std::map<uint32_t, Device> m_devices;   // by host
    std::map<uint32_t, uint32_t> m_owners;  // by address; 0: none of these devices
    uint64_t m_passed_over = 0;
};
