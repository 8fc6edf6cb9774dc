// Counts wrong tokens and passwords.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/Time.h"

// How many there were in this minute, by whatever they are counted by.
class Guesses {
public:
    static constexpr unsigned MAX_WRONG = 10;        // of a visitor in a minute
    static constexpr unsigned MAX_WRONG_NEAR = 100;  // of a network
    static constexpr size_t MAX_COUNTED = 10000;     // keys

    // Keys, and how many are allowed for each.
    using Keys = std::vector<std::pair<std::string, unsigned>>;

    // An address and the network around it.
    static Keys KeysOf(const std::string& peer);

    // Counts one more for all keys. False: one of them has too many, and nothing is counted.
    bool CountsAsFew(const Keys& keys, TimePoint now);

    // The last one of these keys was none.
    void Forgive(const Keys& keys);

private:
    std::map<std::string, unsigned> m_wrong;  // since then
    TimePoint m_since{};
};
