// A receiver's memory of senders in its simplest form: the reference for tests of the daemon's
// memory for repeats. Times are in microseconds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <utility>

class Senders {
public:
    using Place = std::pair<uint32_t, uint16_t>;  // host and port

    // room: the number of senders that it remembers.
    Senders(int64_t max_age_ms, size_t room) : m_MaxAge(max_age_ms), m_Room(room) {}

    // Forgets senders beyond the maximum age, and those from the future.
    void Forget(int64_t now) {
        const auto is_old = [&](int64_t age_ms) { return age_ms < 0 || age_ms > m_MaxAge; };
        while (!m_Known.empty() && is_old((now - m_Known.front().since) / 1000)) {
            m_Known.pop_front();
        }
    }

    // Whether the sender is new and would replace the oldest.
    bool IsFull(const Place& from) {
        return m_Known.size() == m_Room && Find(from) == m_Known.end();
    }
    void Grow(size_t more) { m_Room += more; }

    // Whether tid is the last one from that sender; records it.
    bool IsRepeated(int64_t now, const Place& from, uint32_t tid) {
        const auto found = Find(from);
        if (found != m_Known.end()) {
            const bool is_repeated = std::exchange(found->tid, tid) == tid;
            if (!is_repeated && std::next(found) != m_Known.end()) {
                found->since = now;  // the newest entry keeps its time
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
