// When the addresses of a bus are read, and which of them nobody answers for.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "tools/base/Time.h"
#include "tools/bus/FollowPolicy.h"

// Plans the reads; the caller sends them and passes on the answers:
//
//     for (const uint32_t address : plan.Due(now)) {
//         plan.Begin(address, now);  // and send the read
//     }
//
// A read that is not answered within the answer time is repeated. After as many as the policy says
// the address is unanswered, and read as seldom as others until somebody answers. Reads are spread:
// after those that Due() told there is a pause.
class ReadPlan {
public:
    static constexpr size_t MOST_PINS = 100;  // that are read between two pauses

    explicit ReadPlan(const FollowPolicy& policy);

    // Reads the address from now on, unless it is read already or the policy is to read nothing.
    // Addresses stay: the caller bounds their number.
    void Add(uint32_t address, TimePoint now);

    // Reads an address, or all of them, at that time. An answer that is awaited still counts.
    void ReadAt(uint32_t address, TimePoint time);
    void ReadAllAt(TimePoint time);

    // No answer is awaited any more, and none is missed.
    void DropReads();

    // The addresses to read now, at most MOST_PINS: those that are due and, with them, those that
    // would wake the program soon.
    std::vector<uint32_t> Due(TimePoint now) const;

    // When an address is due; TimePoint::max(): none is read.
    TimePoint NextTime() const;

    // Whether inputs are read too this time.
    bool IncludesInputs(uint32_t address) const;

    // The address is read now. Returns what became of the read before: a new one begins unless its
    // answer may still come.
    enum class Last { Answered, Awaited, Missed };
    Last Begin(uint32_t address, TimePoint now);

    // The address has nothing to read this time.
    void Skip(uint32_t address, TimePoint now);

    // A read of the address was answered. Returns how many seconds that took; none if no answer
    // was awaited.
    std::optional<double> Answer(uint32_t address, TimePoint now);

    bool Has(uint32_t address) const { return m_places.count(address) > 0; }

    // Whether it is read, and nobody answers.
    bool IsUnanswered(uint32_t address) const;

private:
    struct Place {
        TimePoint due{};
        std::optional<TimePoint> asked;  // the read that was not answered yet
        int misses = 0;                  // unanswered reads in a row
        unsigned int rounds = 0;         // reads that were answered, or needless
    };

    bool IsAwaited(const Place& place, TimePoint now) const;
    void Schedule(uint32_t address, Place& place, TimePoint due);

    const FollowPolicy m_policy;
    std::map<uint32_t, Place> m_places;                   // by address
    std::set<std::pair<TimePoint, uint32_t>> m_schedule;  // due, address
    TimePoint m_pause{};                                  // no reads before
    std::minstd_rand m_random;
};
