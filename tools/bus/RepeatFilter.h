// Recognises the second copy of a message.
#pragma once

#include <deque>

#include "tools/base/Time.h"
#include "tools/bus/Traffic.h"

// A device sends every report and reply twice, in two packets one right after the other. The second
// is the same message from the same host within 250 ms of the first. Each message has at most one
// second copy: of four equal ones two are repeats, so nothing that happened twice is lost.
class RepeatFilter {
public:
    bool IsRepeat(const Traffic& traffic, TimePoint now);

private:
    struct Entry {
        size_t hash;  // of host, identifier and items
        TimePoint time;
    };

    std::deque<Entry> m_entries;  // messages whose second copy may come, oldest first
};
