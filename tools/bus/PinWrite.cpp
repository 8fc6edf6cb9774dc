#include "tools/bus/PinWrite.h"

#include <algorithm>
#include <stdexcept>

#include "protocol/numbers.h"
#include "tools/bus/Names.h"

namespace {

const unsigned long LONGEST = 1000000000;  // the longest accepted duration

// The number of steps with the nearest duration, at least one.
uint8_t Steps(unsigned long duration, unsigned long step) {
    const unsigned long count = (duration + step / 2) / step;
    return static_cast<uint8_t>(std::clamp(count, 1UL, static_cast<unsigned long>(COUNT_MASK)));
}

unsigned long Distance(unsigned long a, unsigned long b) {
    return a > b ? a - b : b - a;
}

unsigned long ParseDuration(const std::string& text) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != text.npos ||
        std::stoull(text) > LONGEST) {
        throw std::invalid_argument("not a duration in ms: " + text);
    }
    const auto duration = static_cast<unsigned long>(std::stoull(text));
    if (duration == 0) {  // which the bus takes for no limit
        throw std::invalid_argument("a duration is 1 ms or more; without one the level stays");
    }
    return duration;
}

}  // namespace

const char* LevelLetter(Level level) {
    return level == Level::Low ? "L" : "H";
}

Level ParseLevel(const std::string& text) {
    if (text == "L" || text == "l" || text == "low") {
        return Level::Low;
    }
    if (text == "H" || text == "h" || text == "high") {
        return Level::High;
    }
    throw std::invalid_argument("not a level, L (low) or H (high): " + text);
}

WriteValue::WriteValue(Level level, unsigned long duration_ms)
    : m_byte(level == Level::Low ? LEVEL_LOW : 0) {
    if (duration_ms == 0) {
        return;
    }
    const unsigned long fine = Steps(duration_ms, FINE_STEP_MS);
    const unsigned long coarse = Steps(duration_ms, COARSE_STEP_MS);
    const bool use_fine =
        Distance(fine * FINE_STEP_MS, duration_ms) < Distance(coarse * COARSE_STEP_MS, duration_ms);
    m_byte = static_cast<uint8_t>(m_byte | (use_fine ? STEP_10_MS | fine : coarse));
}

Level WriteValue::GetLevel() const {
    return (m_byte & LEVEL_LOW) != 0 ? Level::Low : Level::High;
}

unsigned int WriteValue::Duration() const {
    return (m_byte & COUNT_MASK) * ((m_byte & STEP_10_MS) != 0 ? FINE_STEP_MS : COARSE_STEP_MS);
}

PinWrite ParsePinWrite(const std::string& text, const Names& names) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
        throw std::invalid_argument("not ADDRESS:PIN=L|H[,DURATION]: " + text);
    }
    const size_t comma = text.find(',', equals);
    const Level level = ParseLevel(
        text.substr(equals + 1, comma == std::string::npos ? comma : comma - equals - 1));
    const unsigned long duration =
        comma == std::string::npos ? 0 : ParseDuration(text.substr(comma + 1));
    return {names.ParsePin(text.substr(0, equals)), WriteValue(level, duration), duration};
}
