#include "tools/board/Guesses.h"

#include "tools/board/Http.h"

namespace {

const std::chrono::minutes COUNTED_FOR{1};

}  // namespace

bool Guesses::CountsAsFew(const std::string& peer, TimePoint now) {
    if (now - m_since >= COUNTED_FOR) {
        m_since = now;
        m_wrong.clear();
    }
    if (m_wrong.size() >= MAX_COUNTED) {
        return false;
    }
    const unsigned own = ++m_wrong[VisitorOf(peer)];
    const unsigned near = ++m_wrong[NetworkOf(peer)];
    return own <= MAX_WRONG && near <= MAX_WRONG_NEAR;
}
