#include "tools/base/LineBuffer.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {

const char* const LINE_ENDS = "\r\n";
const size_t MAX_SHOWN = 400;

std::string Shown(const std::string& text, bool (*is_printable)(unsigned char byte)) {
    std::string shown;
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (shown.size() >= MAX_SHOWN) {
            return shown + "...";
        }
        if (is_printable(byte)) {
            shown += c;
            continue;
        }
        char code[8];
        snprintf(code, sizeof code, "\\x%02X", byte);
        shown += code;
    }
    return shown;
}

}  // namespace

void LineBuffer::Append(const char* data, size_t size) {
    m_data.erase(0, m_read);
    m_read = 0;
    m_data.append(data, size);
}

LineBuffer::Result LineBuffer::Next(std::string& line) {
    m_read = std::min(m_data.find_first_not_of(LINE_ENDS, m_read), m_data.size());
    const size_t end = std::min(m_data.find_first_of(LINE_ENDS, m_read), m_data.size());
    if (end - m_read > MAX_LINE) {
        return Result::Overlong;
    }
    if (end == m_data.size()) {
        return Result::Incomplete;
    }
    line.assign(m_data, m_read, end - m_read);
    m_read = end;
    return Result::Line;
}

std::string LineBuffer::Clear() {
    m_data.erase(0, m_read);
    m_read = 0;
    return std::exchange(m_data, std::string());
}

std::string Printable(const std::string& text) {
    return Shown(text, [](unsigned char byte) { return byte >= 0x20 && byte != 0x7F; });
}

std::string PrintableAscii(const std::string& text) {
    return Shown(text, [](unsigned char byte) { return byte >= 0x20 && byte < 0x7F; });
}
