// Who answers for which address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/base/Time.h"
#include "tools/bus/Names.h"
#include "tools/bus/Traffic.h"

// Finds addresses that two devices have by mistake: both carry out its writes, and their answers
// contradict each other. Two hosts share an address if both answer within a second of each other,
// and until one of them has been silent for a minute. So a device that got another address from
// DHCP does not count as two.
//
// Memory is bounded: only the first addresses and hosts are remembered.
class Answerers {
public:
    static constexpr size_t MAX_ADDRESSES = 20000;
    static constexpr size_t MAX_HOSTS = 4;  // of an address

    // Processes a message; only replies matter.
    void Take(const CMessage& message, TimePoint now);

    // The hosts that share the address; empty if there are no two.
    std::set<uint32_t> Sharing(uint32_t address, TimePoint now) const;

    // All shared addresses.
    std::map<uint32_t, std::set<uint32_t>> Shared(TimePoint now) const;

private:
    struct Answer {
        uint32_t host;
        TimePoint at;            // the last one
        bool is_shared = false;  // another host answered at the same time
    };

    void Note(uint32_t address, uint32_t host, TimePoint now);

    std::map<uint32_t, std::vector<Answer>> m_answers;  // by address
};

// "1:2 (studio1) is answered by 10.0.0.1 and 10.0.0.2: two devices have the same address"
std::string SharedText(uint32_t address, const std::set<uint32_t>& hosts, const Names& names);
