#include "tools/bus/DeviceTable.h"

#include <algorithm>
#include <utility>

namespace {

const double WEIGHT = 1.0 / 8;  // of the last answer in the smoothed time

// False if it was silent before.
bool Silence(DeviceTable::Device& device) {
    if (std::exchange(device.is_silent, true)) {
        return false;
    }
    device.since = TimeOfDay();
    return true;
}

void Move(uint32_t address, DeviceTable::Device* from, DeviceTable::Device* to) {
    if (from != nullptr) {
        from->addresses.erase(address);
        from->is_replaced = to != nullptr && from->addresses.empty();
    }
    if (to != nullptr) {
        to->addresses.insert(address);
        to->is_replaced = false;
    }
}

}  // namespace

std::optional<DeviceTable::News> DeviceTable::Hear(uint32_t host, uint32_t address, double time,
                                                   TimePoint now) {
    const bool is_new = m_devices.count(host) == 0;
    if (is_new && m_devices.size() >= MAX_DEVICES) {
        ++m_passed_over;
        return std::nullopt;
    }
    Device& device = m_devices[host];
    device.told = address;
    device.last = time;
    device.heard = now;
    ++device.messages;
    if (!is_new && !device.is_silent) {
        return std::nullopt;
    }
    device.first = is_new ? time : device.first;
    device.since = time;
    device.is_silent = false;
    return is_new ? News::First : News::Back;
}

DeviceTable::Device* DeviceTable::FindOwner(uint32_t address) {
    const auto device = m_devices.find(OwnerOf(address));
    return device == m_devices.end() ? nullptr : &device->second;
}

void DeviceTable::Answer(uint32_t address, uint32_t host, std::optional<double> seconds) {
    Device* const before = FindOwner(address);
    const auto found = m_devices.find(host);
    Device* const device = found == m_devices.end() ? nullptr : &found->second;
    if (before != nullptr) {
        before->unanswered.erase(address);
    }
    if (before != device) {
        Move(address, before, device);
        m_owners[address] = device == nullptr ? 0 : host;
    }
    if (device != nullptr && seconds) {
        const bool is_first = device->answers++ == 0;
        device->answer_times.Add(*seconds);
        device->answer_time += (*seconds - device->answer_time) * (is_first ? 1 : WEIGHT);
    }
}

std::optional<uint32_t> DeviceTable::Miss(uint32_t address, bool is_unanswered, TimePoint limit) {
    Device* const device = FindOwner(address);
    if (device == nullptr) {
        return std::nullopt;
    }
    ++device->missed;
    if (is_unanswered) {
        device->unanswered.insert(address);
    }
    const bool is_silent =
        device->unanswered.size() == device->addresses.size() && device->heard < limit;
    return is_silent && Silence(*device) ? std::optional<uint32_t>(OwnerOf(address)) : std::nullopt;
}

std::vector<uint32_t> DeviceTable::FindSilent(TimePoint limit) {
    std::vector<uint32_t> silent;
    for (auto& [host, device] : m_devices) {
        if (!device.addresses.empty() || device.heard >= limit) {
            continue;
        }
        const Device* const owner = FindOwner(device.told);
        device.is_replaced = device.is_replaced || (owner != nullptr && !owner->is_silent);
        if (!device.is_replaced && Silence(device)) {
            silent.push_back(host);
        }
    }
    return silent;
}

std::vector<uint32_t> DeviceTable::Forget(TimePoint limit, TimePoint replaced,
                                          const std::function<bool(uint32_t)>& is_wanted) {
    std::vector<uint32_t> forgotten;
    for (auto next = m_devices.begin(); next != m_devices.end();) {
        const auto one = next++;
        const auto& [host, device] = *one;
        const bool is_over = device.heard < (device.is_replaced ? replaced : limit);
        if (!is_over || !(device.is_silent || device.is_replaced) ||
            std::any_of(device.addresses.begin(), device.addresses.end(), is_wanted)) {
            continue;
        }
        for (const uint32_t address : device.addresses) {
            m_owners[address] = 0;
        }
        forgotten.push_back(host);
        m_devices.erase(one);
    }
    return forgotten;
}

uint32_t DeviceTable::OwnerOf(uint32_t address) const {
    const auto owner = m_owners.find(address);
    return owner == m_owners.end() ? 0 : owner->second;
}
