// Recognises the second copy of a message.
#pragma once

#include <cstdint>
#include <deque>

#include "tools/base/Time.h"
#include "tools/bus/Traffic.h"

// Devices send every report and reply as two packets, one right after the other. The copy has the
// same content and the next transaction ID, whichever packets get lost. Levels that alternate
// quickly are no copies of each other.
//
// What only tells levels needs no filter: taking it twice is harmless.
class RepeatFilter {
public:
    // False for traffic without a transaction ID.
    bool IsRepeat(const Traffic& traffic, TimePoint now);

private:
    struct Entry {
        uint32_t host;
        uint32_t tid;  // of the copy
        size_t hash;   // of the content
        TimePoint time;
    };

    std::deque<Entry> m_entries;  // messages whose copy may come, oldest first
};
