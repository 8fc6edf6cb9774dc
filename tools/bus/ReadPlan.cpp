#include "tools/bus/ReadPlan.h"

#include <algorithm>

#include "tools/base/Random.h"

namespace {

const double PAUSE = 0.1;   // seconds
const double JITTER = 0.1;  // of an interval, so that programs do not read in step

}  // namespace

ReadPlan::ReadPlan(const FollowPolicy& policy) : m_policy(policy), m_random(RandomBits()) {}

void ReadPlan::Add(uint32_t address, TimePoint now) {
    if (m_policy.every > 0 && !Has(address)) {
        Schedule(address, m_places[address], now);
    }
}

void ReadPlan::Schedule(uint32_t address, Place& place, TimePoint due) {
    m_schedule.erase({place.due, address});
    place.due = due;
    m_schedule.emplace(due, address);
}

void ReadPlan::ReadAt(uint32_t address, TimePoint time) {
    const auto place = m_places.find(address);
    if (place != m_places.end()) {
        Schedule(address, place->second, time);
    }
}

void ReadPlan::ReadAllAt(TimePoint time) {
    for (auto& [address, place] : m_places) {
        Schedule(address, place, time);
    }
}

void ReadPlan::DropReads() {
    for (auto& [address, place] : m_places) {
        place.asked.reset();
    }
}

bool ReadPlan::IsAwaited(const Place& place, TimePoint now) const {
    return place.asked && Later(*place.asked, m_policy.answer_time) > now;
}

std::vector<uint32_t> ReadPlan::Due(TimePoint now) const {
    std::vector<uint32_t> addresses;
    const TimePoint soon = Later(now, m_policy.every / 2);
    for (const auto& [due, address] : m_schedule) {
        if (now < m_pause || due > (addresses.empty() ? now : soon) ||
            addresses.size() >= MOST_PINS) {
            break;
        }
        if (due <= now || !IsAwaited(m_places.at(address), now)) {
            addresses.push_back(address);
        }
    }
    return addresses;
}

TimePoint ReadPlan::NextTime() const {
    return m_schedule.empty() ? TimePoint::max() : std::max(m_pause, m_schedule.begin()->first);
}

bool ReadPlan::IncludesInputs(uint32_t address) const {
    return m_places.at(address).rounds % m_policy.input_rounds == 0;
}

ReadPlan::Last ReadPlan::Begin(uint32_t address, TimePoint now) {
    Place& place = m_places.at(address);
    const Last last = !place.asked            ? Last::Answered
                      : IsAwaited(place, now) ? Last::Awaited
                                              : Last::Missed;
    if (last != Last::Awaited) {
        place.misses += last == Last::Missed ? 1 : 0;
        place.asked = now;
    }
    const double again = std::min(m_policy.answer_time, m_policy.every);
    Schedule(address, place, Later(now, IsUnanswered(address) ? m_policy.every : again));
    m_pause = Later(now, PAUSE);
    return last;
}

void ReadPlan::Skip(uint32_t address, TimePoint now) {
    Place& place = m_places.at(address);
    ++place.rounds;
    Schedule(address, place, Later(now, m_policy.every));
}

std::optional<double> ReadPlan::Answer(uint32_t address, TimePoint now) {
    Place& place = m_places.at(address);
    place.misses = 0;
    if (!place.asked) {
        return std::nullopt;
    }
    const double seconds = std::chrono::duration<double>(now - *place.asked).count();
    place.asked.reset();
    ++place.rounds;
    std::uniform_real_distribution<double> part(1 - JITTER, 1);
    Schedule(address, place, Later(now, m_policy.every * part(m_random)));
    return seconds;
}

bool ReadPlan::IsUnanswered(uint32_t address) const {
    const auto place = m_places.find(address);
    return place != m_places.end() && place->second.misses >= m_policy.misses;
}
