// Counts wrong tokens and passwords.
#pragma once

#include <map>
#include <string>

#include "tools/base/Time.h"

// Counts those of a minute by visitor and by the network around it.
class Guesses {
public:
    static constexpr unsigned MAX_WRONG = 10;        // of a visitor in a minute
    static constexpr unsigned MAX_WRONG_NEAR = 100;  // of a network
    static constexpr size_t MAX_COUNTED = 10000;     // visitors and networks

    // Counts one more. False: they are too many.
    bool CountsAsFew(const std::string& peer, TimePoint now);

private:
    std::map<std::string, unsigned> m_wrong;  // since then, by visitor and network
    TimePoint m_since{};
};
