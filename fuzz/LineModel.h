// The lines that a client must find in a stream, however the reads split it.
#pragma once

#include <string>
#include <vector>

class LineModel {
public:
    // capacity: how many bytes the client buffers before it gives up on a line.
    explicit LineModel(size_t capacity) : m_Capacity(capacity) {}

    // The lines that these bytes complete, except empty ones: the number of those depends on the
    // reads.
    std::vector<std::string> Feed(const std::string& bytes) {
        std::vector<std::string> lines;
        for (const char c : bytes) {
            m_Closed = m_Closed || m_Pending.size() == m_Capacity;
            if (m_Closed) {
                break;
            }
            if ((c != '\r' && c != '\n') || m_Stuck) {
                m_Pending += c;
                m_Stuck = m_Stuck || c == '\0';
            } else {
                if (!m_Pending.empty()) {
                    lines.push_back(m_Pending);
                }
                m_Pending.clear();
            }
        }
        return lines;
    }

    bool IsClosed() const { return m_Closed; }

private:
    size_t m_Capacity;
    std::string m_Pending;
    bool m_Stuck = false;  // a NUL hides everything after it
    bool m_Closed = false;
};
