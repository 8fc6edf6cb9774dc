// What a receiver remembers of those that it hears, in the plainest way: what the tests compare the
// daemon's memory of repetitions with. Times are in microseconds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <utility>

class Senders {
public:
    using Place = std::pair<uint32_t, uint16_t>;  // host and port

    // room: of how many it knows at once.
    Senders(int64_t max_age_ms, size_t room) : m_MaxAge(max_age_ms), m_Room(room) {}

    // Those of long ago, and those of a time that is to come.
    void Forget(int64_t now) {
        const auto is_old = [&](int64_t age_ms) { return age_ms < 0 || age_ms > m_MaxAge; };
        while (!m_Known.empty() && is_old((now - m_Known.front().since) / 1000)) {
            m_Known.pop_front();
        }
    }

    // Whether one that is not known would take the place of the oldest.
    bool IsFull(const Place& from) {
        return m_Known.size() == m_Room && Find(from) == m_Known.end();
    }
    void Grow(size_t more) { m_Room += more; }

    // Whether it is the last that was heard from there, which it is from now on.
    bool IsRepeated(int64_t now, const Place& from, uint32_t tid) {
        const auto found = Find(from);
        if (found != m_Known.end()) {
            const bool is_repeated = std::exchange(found->tid, tid) == tid;
            if (!is_repeated && std::next(found) != m_Known.end()) {
                found->since = now;  // the youngest one is not made younger
                m_Known.splice(m_Known.end(), m_Known, found);
            }
            return is_repeated;
        }
        m_Known.push_back({from, tid, now});
        if (m_Known.size() > m_Room) {
            m_Known.pop_front();
        }
        return false;
    }

private:
    struct Sender {
        Place from;
        uint32_t tid;
        int64_t since;
    };
    std::list<Sender>::iterator Find(const Place& from) {
        return std::find_if(m_Known.begin(), m_Known.end(),
                            [&from](const Sender& s) { return s.from == from; });
    }

    std::list<Sender> m_Known;  // oldest first
    int64_t m_MaxAge;
    size_t m_Room;
};
