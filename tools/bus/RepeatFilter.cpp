#include "tools/bus/RepeatFilter.h"

#include <algorithm>
#include <functional>

namespace {

const std::chrono::milliseconds WINDOW(250);
const size_t MAX_ENTRIES = 1000;

size_t HashOf(const Traffic& traffic) {
    std::string bytes(traffic.message.GetTrueDataSize(), '\0');
    traffic.message.GetData(bytes.data());
    return std::hash<std::string>()(traffic.host + ' ' + bytes);
}

}  // namespace

bool RepeatFilter::IsRepeat(const Traffic& traffic, TimePoint now) {
    while (!m_entries.empty() &&
           (m_entries.front().time + WINDOW < now || m_entries.size() >= MAX_ENTRIES)) {
        m_entries.pop_front();
    }
    const size_t hash = HashOf(traffic);
    const auto first = std::find_if(m_entries.begin(), m_entries.end(),
                                    [hash](const Entry& entry) { return entry.hash == hash; });
    if (first != m_entries.end()) {
        m_entries.erase(first);
        return true;
    }
    m_entries.push_back({hash, now});
    return false;
}
