#include "tools/board/EventStream.h"

#include <charconv>

void EventStream::Append(const std::string& name, const std::string& data,
                         const Audience& audience) {
    std::string frame = "id: " + IdBefore(Next() + 1) + "\nevent: " + name + "\ndata: " + data;
    frame += "\n\n";
    m_bytes += frame.size();
    m_frames.push_back({std::move(frame), audience});
    while (m_bytes > MAX_BYTES) {
        m_bytes -= m_frames.front().text.size();
        m_frames.pop_front();
        ++m_first;
    }
    if (on_append) {
        on_append();
    }
}

std::string EventStream::IdBefore(uint64_t number) const {
    return m_epoch + "-" + std::to_string(number - 1);
}

bool EventStream::Resume(const std::string& id, uint64_t& number) const {
    if (id.compare(0, m_epoch.size() + 1, m_epoch + "-") != 0) {
        return false;
    }
    uint64_t last = 0;
    const char* const end = id.data() + id.size();
    const auto parsed = std::from_chars(id.data() + m_epoch.size() + 1, end, last);
    if (parsed.ec != std::errc() || parsed.ptr != end || last + 1 < m_first || last >= Next()) {
        return false;
    }
    number = last + 1;
    return true;
}

void EventStream::Copy(uint64_t& number, size_t max, const Takes& takes, std::string& out) const {
    while (number < Next() && out.size() < max) {
        const Frame& frame = m_frames[static_cast<size_t>(number - m_first)];
        if (!takes || takes(frame.audience)) {
            out += frame.text;
        }
        ++number;
    }
}
