#include "tools/board/Guesses.h"

#include <algorithm>

#include "tools/board/Http.h"

namespace {

const std::chrono::minutes COUNTED_FOR{1};

}  // namespace

Guesses::Keys Guesses::KeysOf(const std::string& peer) {
    return {{VisitorOf(peer), MAX_WRONG}, {NetworkOf(peer), MAX_WRONG_NEAR}};
}

bool Guesses::CountsAsFew(const Keys& keys, TimePoint now) {
    if (now - m_since >= COUNTED_FOR) {
        m_since = now;
        m_wrong.clear();
    }
    const bool few = std::all_of(keys.begin(), keys.end(), [&](const auto& key) {
        const auto found = m_wrong.find(key.first);
        return found == m_wrong.end() || found->second < key.second;
    });
    if (!few || m_wrong.size() >= MAX_COUNTED) {
        return false;
    }
    for (const auto& key : keys) {
        ++m_wrong[key.first];
    }
    return true;
}

void Guesses::Forgive(const Keys& keys) {
    for (const auto& key : keys) {
        const auto found = m_wrong.find(key.first);
        if (found != m_wrong.end() && --found->second == 0) {
            m_wrong.erase(found);
        }
    }
}
