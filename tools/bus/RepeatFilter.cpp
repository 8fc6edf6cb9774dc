#include "tools/bus/RepeatFilter.h"

#include <algorithm>
#include <functional>
#include <string>

namespace {

// Both packets leave at once, so this allows for a busy machine. It is shorter than the pause
// between two equal writes by hand, of which each is sent once.
const std::chrono::milliseconds WINDOW(100);
const size_t MAX_ENTRIES = 1000;

size_t HashOf(const CMessage& message) {
    std::string bytes(message.GetTrueDataSize(), '\0');
    message.GetData(bytes.data());
    return std::hash<std::string>()(bytes);
}

// 0 is no transaction ID.
uint32_t NextTid(uint32_t tid) {
    return tid == UINT32_MAX ? 1 : tid + 1;
}

}  // namespace

bool RepeatFilter::IsRepeat(const Traffic& traffic, TimePoint now) {
    while (!m_entries.empty() &&
           (m_entries.front().time + WINDOW < now || m_entries.size() >= MAX_ENTRIES)) {
        m_entries.pop_front();
    }
    if (traffic.tid == 0) {
        return false;
    }
    const auto host = static_cast<uint32_t>(traffic.message.GetHost());
    const size_t hash = HashOf(traffic.message);
    // The newest first: a copy usually comes right after its message.
    const auto first = std::find_if(m_entries.rbegin(), m_entries.rend(), [&](const Entry& entry) {
        return entry.tid == traffic.tid && entry.host == host && entry.hash == hash;
    });
    if (first != m_entries.rend()) {
        m_entries.erase(std::next(first).base());
        return true;
    }
    m_entries.push_back({host, NextTid(traffic.tid), hash, now});
    return false;
}
