#include "tools/ctl/PinWrite.h"

#include <algorithm>
#include <stdexcept>

#include "tools/ctl/PinName.h"

namespace {

const uint8_t LEVEL_LOW = 0x40;
const uint8_t STEP_10_MS = 0x80;
const uint8_t MAX_COUNT = 31;
const unsigned long LONGEST = 1000000000;  // what may be asked for

// The count of steps whose duration is the nearest, one at least.
uint8_t Steps(unsigned long duration, unsigned long step) {
    const unsigned long count = (duration + step / 2) / step;
    return static_cast<uint8_t>(std::clamp(count, 1UL, static_cast<unsigned long>(MAX_COUNT)));
}

unsigned long Distance(unsigned long a, unsigned long b) {
    return a > b ? a - b : b - a;
}

unsigned long ParseDuration(const std::string& text) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != text.npos ||
        std::stoull(text) > LONGEST) {
        throw std::invalid_argument("not a duration in ms: " + text);
    }
    return static_cast<unsigned long>(std::stoull(text));
}

}  // namespace

WriteValue::WriteValue(bool low, unsigned long duration_ms) : m_byte(low ? LEVEL_LOW : 0) {
    if (duration_ms == 0) {
        return;
    }
    const uint8_t fine = Steps(duration_ms, 10);
    const uint8_t coarse = Steps(duration_ms, 250);
    const bool use_fine =
        Distance(fine * 10UL, duration_ms) < Distance(coarse * 250UL, duration_ms);
    m_byte = static_cast<uint8_t>(m_byte | (use_fine ? STEP_10_MS | fine : coarse));
}

bool WriteValue::IsLow() const {
    return (m_byte & LEVEL_LOW) != 0;
}

unsigned int WriteValue::Duration() const {
    return (m_byte & MAX_COUNT) * ((m_byte & STEP_10_MS) != 0 ? 10U : 250U);
}

PinWrite ParsePinWrite(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw std::invalid_argument("not ADDRESS:PIN=L|H[,DURATION]: " + text);
    }
    const size_t comma = text.find(',', equals);
    const std::string level =
        text.substr(equals + 1, comma == std::string::npos ? comma : comma - equals - 1);
    if (level != "L" && level != "H" && level != "l" && level != "h") {
        throw std::invalid_argument("not a level, L or H: " + text);
    }
    const unsigned long duration =
        comma == std::string::npos ? 0 : ParseDuration(text.substr(comma + 1));
    const bool low = level == "L" || level == "l";
    return {ParsePin(text.substr(0, equals)), WriteValue(low, duration), duration};
}
