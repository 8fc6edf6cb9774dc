#include "tools/mqtt/PinBook.h"

#include <utility>
#include <vector>

namespace {

const size_t MOST_CHANGES = 10000;  // waiting to be published

FollowPolicy PolicyOf(const MqttConfig& config) {
    FollowPolicy policy;
    policy.every = config.ask_every;
    return policy;
}

}  // namespace

PinBook::PinBook(const MqttConfig& config, std::function<void(const std::string&)> tell)
    : m_follower(config.bus, PolicyOf(config)) {
    m_follower.on_change = [this](const PinChange& change) { Add(change); };
    m_follower.on_device = [this](uint32_t host, PinFollower::News) {
        m_changed_devices.insert(host);
    };
    m_follower.on_link = [tell](const BusLink::Change& change) { tell(change.text); };
    m_follower.on_trouble = std::move(tell);
    Want(config);
}

void PinBook::Want(const MqttConfig& config) {
    for (const PinRef& pins : config.pins) {
        m_follower.Want(pins);
    }
}

void PinBook::Add(const PinChange& change) {
    m_changed.insert(change.tag);
    m_heard.insert(change.tag);
    m_changes.push_back(change);
    if (m_changes.size() > MOST_CHANGES) {
        m_changes.pop_front();
        ++m_dropped;
    }
}

void PinBook::AskAll(const std::set<uint32_t>& others) {
    std::set<uint32_t> tags = others;
    m_follower.States().ForEach([&](uint32_t tag, const PinState&) {
        if (!m_follower.IsUnanswered(tag >> 8)) {
            tags.insert(tag);
        }
    });
    std::vector<PinRef> pins;
    for (const uint32_t tag : tags) {
        pins.push_back({tag >> 8, static_cast<uint8_t>(tag & 0xFF)});
    }
    m_follower.Read(pins);
}

void PinBook::TellAll() {
    m_follower.States().ForEach([this](uint32_t tag, const PinState&) {
        m_changed.insert(tag);
        m_heard.insert(tag);
    });
    for (const auto& device : m_follower.Devices()) {
        m_changed_devices.insert(device.first);
    }
}

PinView PinBook::ViewOf(uint32_t tag) const {
    PinView view;
    const PinState* const state = m_follower.States().Find(tag);
    if (state == nullptr || !state->level) {
        return view;
    }
    view.level = state->level;
    view.status = state->status;
    view.denied = state->denied;
    view.since = state->since->time;
    view.host = state->since->host;
    return view;
}
