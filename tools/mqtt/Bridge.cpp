#include "tools/mqtt/Bridge.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinJson.h"
#include "tools/mqtt/Discovery.h"

namespace {

const size_t LOG_LINES = 20;    // a second
const double SIGN_EVERY = 0.5;  // seconds
const double SIGN_TIME = 10;  // a connection without a returned heartbeat for that long is given up
const double COMPLAIN_EVERY = 5;
const double DEFEND_EVERY = 3;  // seconds, enough to hear from a bridge that has claimed the site
const size_t MOST_LEFTOVERS = 50000;
const size_t LONGEST_TOPIC = 300;
const size_t MOST_UNACKNOWLEDGED = 20;
const double REST_PAUSE = 0.001;  // seconds
// In one turn of the loop. Enough for a state and an event for each message that is taken from the
// bus in a turn, so that a burst from the bus does not fill the queue.
const int MOST_PUBLISHED = 1000;

}  // namespace

Bridge::Bridge(MqttConfig& config, std::function<void(const std::string&)> print)
    : m_config(config),
      m_topics(config),
      m_log(LOG_LINES, std::move(print)),
      m_tell([this](const std::string& text) { m_log.Tell(text); }),
      m_pins(config, m_tell),
      m_bus(m_pins.Follower()),
      m_broker(config, m_tell),
      m_sets(config, m_bus, m_tell),
      m_losses(config.loss_file),
      m_links(config, m_losses.Saved()),
      m_number(NewRequestId()) {
    m_bus.on_message = [this](const Traffic& traffic, bool) {
        if (traffic.GetKind() == Kind::Reply) {
            m_sets.TakeReply(traffic);
        }
    };
}

Bridge::End Bridge::Run(Signals& signals) {
    m_notify.Ready();
    for (;;) {
        m_notify.Status(StatusLine());
        m_notify.Beat();
        const std::optional<int> signal = Wait(signals) ? signals.Take() : std::nullopt;
        if (signal == SIGHUP) {
            Reload();
        } else if (signal) {
            m_notify.Stopping();
            Stop();
            return End::Stopped;
        }
        Step();
        if (m_is_taken_over) {
            m_broker.Leave();
            return End::TakenOver;
        }
    }
}

// Whether a signal has come.
bool Bridge::Wait(const Signals& signals) {
    std::vector<pollfd> fds = {{signals.Get(), POLLIN, 0},
                               {m_broker.Socket(), m_broker.Events(), 0}};
    for (const int fd : m_bus.Descriptors()) {
        fds.push_back({fd, POLLIN, 0});
    }
    TimePoint next = std::min({m_broker.NextTime(), m_bus.NextTime(), m_sets.NextTime(),
                               m_links.NextTime(), m_notify.NextTime(), After(SIGN_EVERY)});
    if (m_broker.Connection() != 0) {
        next = std::min(next, m_next_sign);
    }
    if (m_broker.CanSend()) {
        next = std::min(next, m_rest);
    }
    poll(fds.data(), fds.size(), m_has_more ? 0 : MillisecondsUntil(next));
    const short got = fds[1].revents;
    m_broker.Serve((got & ~POLLOUT) != 0, (got & POLLOUT) != 0);
    return fds[0].revents != 0;
}

// A file that is wrong changes nothing.
void Bridge::Reload() {
    try {
        const MqttConfig fresh = MqttConfig::Read(m_config.file);
        if (fresh.Fixed() != m_config.Fixed()) {
            return m_tell(m_config.file +
                          ": only names, pins, links, discovery and expire can change without a "
                          "restart; the old configuration stays");
        }
        Follow(fresh);
        m_tell(m_config.file + " was read again");
    } catch (const ConfigError& error) {
        m_tell(std::string(error.what()) + "; the old configuration stays");
    }
}

void Bridge::Follow(const MqttConfig& fresh) {
    const std::set<std::string> links = m_links.Subscriptions();
    m_leftovers.merge(TopicsOfFile());
    m_config = fresh;
    for (const std::string& topic : TopicsOfFile()) {
        m_leftovers.erase(topic);
    }
    m_pins.Want(m_config);
    m_pins.TellAll();
    for (const Links::Write& write : m_links.Reload(m_config)) {
        Write(write);
    }
    if (m_connection == 0) {
        return;
    }
    const std::set<std::string> now = m_links.Subscriptions();
    for (const std::string& topic : links) {
        if (now.count(topic) == 0 && topic != m_topics.Alive() && topic != m_topics.Status()) {
            m_broker.Unsubscribe(topic);
        }
    }
    for (const std::string& topic : now) {  // again: the broker sends what it has retained
        m_broker.Subscribe(topic);
    }
    Announce();
}

// Those that depend on names, and those of hubs.
std::set<std::string> Bridge::TopicsOfFile() const {
    std::set<std::string> topics;
    for (const PinRef& pins : m_config.pins) {
        for (const uint32_t tag : pins.Tags()) {
            const std::string name = m_config.names.NameOf(tag);
            if (!name.empty()) {
                topics.insert(m_topics.Pin(name));
                topics.insert(m_topics.Level(name));
            }
            if (!m_config.discovery.empty()) {
                topics.insert(DiscoveryTopic(m_config, tag));
            }
        }
    }
    return topics;
}

void Bridge::Step() {
    FollowConnection();
    TakeMessages();
    m_bus.Serve();
    m_sets.Tend();
    CarryOutLinks();
    FollowPhase();
    PublishAll();
    m_log.Tend();
}

void Bridge::PublishAll() {
    m_has_more = false;
    const bool is_due = Now() >= m_rest;
    int count = 0;
    while (m_broker.CanSend()) {
        if (++count > MOST_PUBLISHED) {
            m_has_more = true;
            return;
        }
        if (PublishUrgent() || ((is_due || m_rest == TimePoint::max()) && PublishRest())) {
            continue;
        }
        if (is_due) {
            m_rest = TimePoint::max();
        }
        return;
    }
}

void Bridge::FollowConnection() {
    const unsigned int connection = m_broker.Connection();
    if (connection != m_connection) {
        m_connection = connection;
        m_phase = Phase::Away;
        m_links.Forget();
        m_signs.clear();
        m_own_sign = {};
        m_rival.clear();
        // Publishes again what may not have arrived.
        for (auto& answer : m_unacknowledged) {
            m_sets.Answers().push_front(std::move(answer.second));
        }
        m_unacknowledged.clear();
        if (connection != 0) {
            m_connected_at = Now();
            m_next_sign = Now();
            m_phase = Phase::Connected;
            PublishStatus(OFFLINE);
            m_seen_status = m_status;
            // The latest bridge of a site wins.
            m_has_claimed = false;
            if (!std::exchange(m_was_connected, true)) {
                Claim();
            }
            Subscribe();
            Announce();
        }
    }
    if (m_connection != 0 && Now() >= m_next_sign) {
        SendSign();
    }
}

void Bridge::Subscribe() {
    m_broker.Subscribe(m_topics.Bridge());
    m_broker.Subscribe(m_topics.Alive());
    m_broker.Subscribe(m_topics.Status());
    m_broker.Subscribe(m_topics.Sets(), Broker::RETAINED_AS_PUBLISHED);
    for (const std::string& topic : m_links.Subscriptions()) {
        m_broker.Subscribe(topic);
    }
    m_broker.Subscribe(m_topics.Pins(), Broker::NO_LOCAL);
    m_broker.Subscribe(m_topics.Devices(), Broker::NO_LOCAL);
}

// Only pins in the files: hubs make an entity of each.
void Bridge::Announce() {
    if (!m_config.discovery.empty()) {
        for (const PinRef& pins : m_config.pins) {
            const std::vector<uint32_t> tags = pins.Tags();
            m_unannounced.insert(tags.begin(), tags.end());
        }
    }
}

void Bridge::BeginAsking() {
    m_phase = Phase::Asking;
    std::set<uint32_t> published;
    for (const std::string& topic : m_leftovers) {
        try {
            published.insert(ParsePin(m_topics.PinOfState(topic)));
        } catch (const std::invalid_argument&) {
            // The topic of a level, a name or a device.
        }
    }
    m_pins.AskAll(published);
}

// Publishes a heartbeat, and checks that the last ones have come back.
void Bridge::SendSign() {
    m_next_sign = After(SIGN_EVERY);
    if (std::max(m_own_sign, m_connected_at) < After(-SIGN_TIME)) {
        return m_broker.Drop("it is connected, but heartbeats do not come back");
    }
    ++m_sign_count;
    m_signs.emplace_back(m_sign_count, Now());
    m_broker.Publish({m_topics.Alive(), SignText({m_number, m_sign_count}), false, true, {}});
}

void Bridge::TakeSign(const std::string& payload) {
    const std::optional<Sign> sign = ParseSign(payload);
    if (sign && sign->bridge == m_number) {
        TakeOwnSign(sign->count);
    } else if (sign && std::to_string(sign->bridge) == m_rival) {
        m_is_taken_over = true;
    }
}

// The first one proves that what the broker had retained has arrived.
void Bridge::TakeOwnSign(unsigned long count) {
    const auto sign = std::find_if(m_signs.begin(), m_signs.end(),
                                   [count](const auto& sent) { return sent.first == count; });
    if (sign == m_signs.end()) {
        return;
    }
    m_own_sign = sign->second;
    m_signs.erase(m_signs.begin(), sign + 1);
    m_broker.Proved();
    if (m_phase == Phase::Connected) {
        BeginAsking();
    }
}

void Bridge::Claim() {
    m_broker.Publish({m_topics.Bridge(), std::to_string(m_number), true, true, {}});
}

// A claim alone proves nothing: a broker may remember an old one. Whoever made it must be alive.
void Bridge::TakeClaim(const std::string& payload) {
    m_has_claimed = payload == std::to_string(m_number);
    m_rival = m_has_claimed ? std::string() : payload;
}

// Removed later, unless it is published again: so nothing counts that comes after that has begun.
void Bridge::TakeLeftover(const Broker::Message& message) {
    if (m_phase == Phase::Connected && message.retained && !message.payload.empty() &&
        message.topic.size() <= LONGEST_TOPIC && m_leftovers.size() < MOST_LEFTOVERS) {
        m_leftovers.insert(message.topic);
    }
}

std::string Bridge::Hindrance() const {
    if (m_is_taken_over) {
        return "another bridge has the site";
    }
    if (!m_bus.IsUp()) {
        return "the bus is down";
    }
    return m_phase == Phase::Online ? std::string() : "the pins are still being read";
}

// For whoever looks after the service.
std::string Bridge::StatusLine() const {
    const std::string site = "site " + m_config.site;
    if (m_connection == 0) {
        return site + " is not connected to the broker";
    }
    const std::string hindrance = Hindrance();
    return hindrance.empty() ? site + " is online" : site + " is not online: " + hindrance;
}

void Bridge::TakeMessages() {
    for (const uint32_t number : m_broker.Acknowledged()) {
        m_unacknowledged.erase(number);
    }
    m_broker.Acknowledged().clear();
    for (const Broker::Message& message : m_broker.Inbox()) {
        TakeMessage(message);
    }
    m_broker.Inbox().clear();
}

void Bridge::TakeMessage(const Broker::Message& message) {
    if (!m_topics.PinOfSet(message.topic).empty()) {
        const std::chrono::duration<double> age = Now() - m_own_sign;
        return m_sets.Take(message, age.count(), Hindrance());
    }
    if (message.topic == m_topics.Bridge()) {
        TakeClaim(message.payload);
    } else if (message.topic == m_topics.Alive() && !message.retained) {
        TakeSign(message.payload);
    } else if (message.topic == m_topics.Status()) {
        m_seen_status = message.payload;
    } else if (m_topics.IsOfState(message.topic)) {
        TakeLeftover(message);
    }
    m_links.Take(message, m_own_sign);
    CarryOutLinks();
}

void Bridge::CarryOutLinks() {
    if (m_bus.IsUp()) {
        for (const Links::Write& write : m_links.Tend(m_own_sign)) {
            Write(write);
        }
    }
    const std::string failure = m_losses.Save(m_links.Losses());
    if (!failure.empty()) {
        m_tell(failure);
    }
    for (const std::string& note : m_links.Notes()) {
        m_tell(note);
    }
    m_links.Notes().clear();
}

void Bridge::Write(const Links::Write& write) {
    try {
        m_bus.Write(write.tag, WriteValue(write.level, write.duration_ms));
        if (!write.reason.empty()) {
            m_tell(PinText(write.tag) + " is set " + LevelLetter(write.level) + " (" +
                   write.reason + ")");
        }
    } catch (const BusError& error) {
        m_tell(error.what());
        m_links.WriteAgain();
    }
}

void Bridge::FollowPhase() {
    if (m_bus_up != m_bus.IsUp()) {
        m_bus_up = m_bus.IsUp();
        if (m_bus_up) {
            m_links.WriteAgain();
        }
        if (m_own_sign != TimePoint()) {
            PublishStatus(OFFLINE);
            BeginAsking();
        }
    }
    if (m_phase == Phase::Asking && m_bus_up && !m_bus.IsReading()) {
        m_phase = Phase::Publishing;
        m_pins.TellAll();
    }
    if (m_phase == Phase::Publishing && IsAllPublished()) {
        GoOnline();
    }
    if (m_own_sign != TimePoint()) {
        DefendOwnTopics();
    }
    if (m_pins.Dropped() != m_dropped && Now() >= m_next_complaint) {
        m_next_complaint = After(COMPLAIN_EVERY);
        m_tell("the broker is too slow: " + std::to_string(m_pins.Dropped() - m_dropped) +
               " events were dropped");
        m_dropped = m_pins.Dropped();
    }
}

bool Bridge::IsAllPublished() {
    return m_pins.Changed().empty() && m_levels.empty() && m_pins.ChangedDevices().empty() &&
           m_leftovers.empty();
}

void Bridge::GoOnline() {
    m_phase = Phase::Online;
    PublishStatus(ONLINE);
    m_broker.Unsubscribe(m_topics.Pins());
    m_broker.Unsubscribe(m_topics.Devices());
    m_tell("site " + m_config.site + " is online");
}

// The broker may have restored old messages, or published the will of a connection that it had
// not seen end.
void Bridge::DefendOwnTopics() {
    if (Now() < m_next_defence) {
        return;
    }
    m_next_defence = After(DEFEND_EVERY);
    if (m_seen_status != m_status) {
        PublishStatus(m_status.c_str());
    }
    if (!m_has_claimed) {
        Claim();
    }
}

// In the order of urgency. False if there is nothing.
bool Bridge::PublishUrgent() {
    if (!m_sets.Answers().empty() && m_unacknowledged.size() < MOST_UNACKNOWLEDGED) {
        PublishAnswer();
        return true;
    }
    std::set<uint32_t>& pins = m_pins.Changed();
    if (IsPublishing() && !pins.empty()) {
        const uint32_t tag = *pins.begin();
        pins.erase(pins.begin());
        PublishPin(tag);
        return true;
    }
    return false;
}

// Publishes what no link waits for, after a short rest: at once, it would compete for the processor
// with the broker and the far bridge just when these handle a change.
bool Bridge::PublishRest() {
    if (!IsPublishing()) {
        return false;
    }
    if (!m_levels.empty()) {
        const uint32_t tag = *m_levels.begin();
        m_levels.erase(m_levels.begin());
        PublishLevel(tag);
        return true;
    }
    std::set<uint32_t>& devices = m_pins.ChangedDevices();
    if (!devices.empty()) {
        const uint32_t host = *devices.begin();
        devices.erase(devices.begin());
        PublishDevice(host);
        return true;
    }
    if (!m_leftovers.empty()) {
        const std::string topic = *m_leftovers.begin();
        Publish(topic, {}, true);
        return true;
    }
    if (!m_unannounced.empty()) {
        const uint32_t tag = *m_unannounced.begin();
        m_unannounced.erase(m_unannounced.begin());
        Publish(DiscoveryTopic(m_config, tag), DiscoveryText(m_config, tag), true);
        return true;
    }
    if (!m_pins.Changes().empty()) {
        const PinChange change = m_pins.Changes().front();
        m_pins.Changes().pop_front();
        PublishChange(change);
        return true;
    }
    return false;
}

void Bridge::PublishPin(uint32_t tag) {
    PinView view = m_pins.ViewOf(tag);
    if (view.level && view.status == PinStatus::Told) {
        m_links.Told(tag, *view.level);
    }
    view.bridge = m_number;
    view.via = m_links.ViaOf(tag, view.level);
    const std::string text = StateText(view, tag, m_config.names);
    for (const std::string& pin : {PinText(tag), m_config.names.NameOf(tag)}) {
        if (!pin.empty()) {
            Publish(m_topics.Pin(pin), text, true);
        }
    }
    m_levels.insert(tag);
    if (m_rest == TimePoint::max()) {
        m_rest = After(REST_PAUSE);
    }
}

void Bridge::PublishLevel(uint32_t tag) {
    const std::optional<Level> level = m_pins.ViewOf(tag).level;
    for (const std::string& pin : {PinText(tag), m_config.names.NameOf(tag)}) {
        if (!pin.empty()) {
            Publish(m_topics.Level(pin), level ? LevelText(level) : std::string(), true);
        }
    }
}

void Bridge::PublishChange(const PinChange& change) {
    Publish(m_topics.Event(PinText(change.tag)), ToJson(change, m_config.names), false);
}

void Bridge::PublishDevice(uint32_t host) {
    const PinFollower::Device& device = m_bus.Devices().at(host);
    Json json;
    json["state"] = device.is_silent ? "silent" : "heard";
    json["since"] = device.since;
    Publish(m_topics.Device(HostText(host)), Dump(json), true);
}

void Bridge::PublishAnswer() {
    Broker::Outgoing answer = m_sets.Answers().front();
    m_sets.Answers().pop_front();
    m_unacknowledged.emplace(m_broker.Publish(answer), std::move(answer));
}

void Bridge::Publish(const std::string& topic, const std::string& payload, bool retain) {
    m_leftovers.erase(topic);
    m_broker.Publish({topic, payload, retain, false, {}});
}

void Bridge::PublishStatus(const char* status) {
    m_status = status;
    m_next_defence = After(DEFEND_EVERY);
    m_broker.Publish({m_topics.Status(), status, true, true, {}});
}

// From here on nobody controls the links.
void Bridge::Stop() {
    for (const Links::Write& write : m_links.End()) {
        Write(write);
    }
    if (m_connection != 0) {
        PublishStatus(OFFLINE);
    }
    m_broker.Leave();
}
