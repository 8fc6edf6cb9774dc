#include "tools/mqtt/Bridge.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

#include "tools/bus/PinName.h"

namespace {

const size_t LOG_LINES = 20;  // a second
// In seconds:
const double TURN_EVERY = 0.5;  // links and log need one that often
const double COMPLAIN_EVERY = 5;
const double PATIENCE = 1.5;  // until links can know all that the bridge before has known

}  // namespace

Bridge::Bridge(MqttConfig& config, const std::string& metrics,
               std::function<void(const std::string&)> print)
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
      m_presence(config, m_topics, m_broker),
      m_publisher(config, m_topics, m_pins, m_links, m_sets, m_broker, m_presence.Number()),
      m_metrics(metrics, m_broker, m_pins, m_sets, m_links) {
    m_bus.on_message = [this](const Traffic& traffic, bool) { TakeTraffic(traffic); };
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
        if (m_presence.IsTakenOver()) {
            m_broker.Leave();
            return End::TakenOver;
        }
    }
}

// Whether a signal has come.
bool Bridge::Wait(const Signals& signals) {
    m_broker.Flush();
    std::vector<pollfd> fds = {{signals.Get(), POLLIN, 0},
                               {m_broker.Socket(), m_broker.Events(), 0}};
    for (const int fd : m_bus.Descriptors()) {
        fds.push_back({fd, POLLIN, 0});
    }
    const TimePoint next =
        std::min({m_broker.NextTime(), m_bus.NextTime(), m_sets.NextTime(), m_links.NextTime(),
                  m_notify.NextTime(), m_presence.NextTime(), m_publisher.NextTime(),
                  m_metrics.NextTime(), After(TURN_EVERY)});
    poll(fds.data(), fds.size(), MillisecondsUntil(next));
    const short got = fds[1].revents;
    m_broker.Serve((got & ~POLLOUT) != 0, (got & POLLOUT) != 0);
    return fds[0].revents != 0;
}

// A file that is wrong changes nothing.
void Bridge::Reload() {
    try {
        const MqttConfig fresh = MqttConfig::Read(m_config.file);
        if (fresh.Fixed() != m_config.Fixed()) {
            return m_tell(
                m_config.file +
                ": only names, pins, links, discovery, board and expire can change without a "
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
    const MqttConfig before = std::exchange(m_config, fresh);
    m_pins.Want(m_config);
    m_publisher.Follow(before);
    for (const Links::Write& write : m_links.Reload(m_config)) {
        Write(write);
    }
    if (m_connection == 0) {
        return;
    }
    SubscribeAnnounced();
    const std::set<std::string> now = m_links.Subscriptions();
    for (const std::string& topic : links) {
        if (now.count(topic) == 0 && topic != m_topics.Alive() && topic != m_topics.Status()) {
            m_broker.Unsubscribe(topic);
        }
    }
    for (const std::string& topic : now) {  // again: the broker sends what it has retained
        m_broker.Subscribe(topic);
    }
}

void Bridge::Step() {
    FollowConnection();
    TakeMessages();
    m_bus.Serve();
    m_presence.Tend(m_bus.IsUp());
    FollowRole();
    m_sets.Tend();
    CompareOutputs();
    CarryOutLinks();
    FollowPhase();
    m_publisher.Publish((m_phase == Phase::Publishing || m_phase == Phase::Online) &&
                        m_presence.MayDrive());
    const std::string failure =
        m_metrics.Tend(m_phase == Phase::Online, m_phase == Phase::StandingBy);
    if (!failure.empty()) {
        m_tell(failure);
    }
    m_log.Tend();
}

void Bridge::FollowConnection() {
    const unsigned int connection = m_broker.Connection();
    if (connection != m_connection) {
        m_connection = connection;
        m_phase = Phase::Away;
        m_links.Forget();
        m_presence.End();
        m_sets.ConnectionEnded();
        if (connection != 0) {
            m_phase = Phase::Connected;
            m_presence.Begin();
            Subscribe();
        }
    }
}

void Bridge::Subscribe() {
    m_presence.Subscribe();
    for (const std::string& topic : m_links.Subscriptions()) {
        m_broker.Subscribe(topic);
    }
    m_broker.Subscribe(m_topics.Pins(), Broker::NO_LOCAL);
    m_broker.Subscribe(m_topics.Devices(), Broker::NO_LOCAL);
    SubscribeAnnounced();
    if (m_presence.IsActive()) {
        TakeOver();
    }
}

void Bridge::SubscribeAnnounced() {
    if (!m_config.discovery.empty()) {
        m_broker.Subscribe(DiscoveryFilter(m_config), Broker::NO_LOCAL);
    }
}

void Bridge::BeginAsking() {
    if (m_presence.IsActive()) {
        m_phase = Phase::Asking;
    } else if (m_phase != Phase::StandingBy) {
        StandBy();
    }
    m_pins.AskAll(m_publisher.LeftPins());
}

std::string Bridge::Hindrance() const {
    if (m_presence.IsTakenOver() || !m_presence.MayDrive()) {
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
    if (m_phase == Phase::StandingBy) {
        return site + " stands by";
    }
    const std::string hindrance = Hindrance();
    return hindrance.empty() ? site + " is online" : site + " is not online: " + hindrance;
}

void Bridge::TakeMessages() {
    for (const uint32_t number : m_broker.Acknowledged()) {
        m_sets.Acknowledged(number);
    }
    m_broker.Acknowledged().clear();
    for (const Broker::Message& message : m_broker.Inbox()) {
        TakeMessage(message);
    }
    m_broker.Inbox().clear();
}

void Bridge::TakeMessage(const Broker::Message& message) {
    if (!m_topics.PinOfSet(message.topic).empty()) {
        if (m_phase == Phase::StandingBy) {
            return;  // the active bridge answers
        }
        const std::chrono::duration<double> age = Now() - m_presence.OwnSign();
        return m_sets.Take(message, age.count(), Hindrance());
    }
    if (const auto address = DiscoveredAddress(m_config, message.topic)) {
        return m_publisher.TakeAnnounced(*address, message.payload);
    }
    m_presence.Take(message);
    FollowRole();  // before links are carried out
    if (m_phase == Phase::Connected || m_config.standby) {
        TakeLeftover(message);
    }
    m_links.Take(message, m_presence.OwnSign());
    CarryOutLinks();
}

// What an earlier bridge has left at the broker has arrived when the first heartbeat is back: what
// comes after that was published by others, and is left alone; but one that stands by follows what
// the active bridge publishes, which it will have to publish or remove itself.
void Bridge::TakeLeftover(const Broker::Message& message) {
    const bool is_state = m_topics.IsOfState(message.topic);
    if (m_phase == Phase::Connected && m_presence.IsProved()) {
        BeginAsking();
    } else if (is_state && m_phase > Phase::StandingBy) {
        m_publisher.TakeForeign(message.topic);
    } else if (is_state && (message.retained || m_config.standby)) {
        m_publisher.TakeLeftover(message.topic, !message.payload.empty());
    }
}

// What is written while it is not known who drives the outputs comes from who has taken over.
void Bridge::TakeTraffic(const Traffic& traffic) {
    if (traffic.GetKind() == Kind::Reply) {
        m_sets.TakeReply(traffic);
    } else if (traffic.GetKind() == Kind::Write && m_presence.GetStandby().IsCutOff()) {
        for (unsigned int i = 0; i < traffic.message.GetItemCount(); ++i) {
            m_links.Overrule(traffic.message.GetItem(i)->m_nTag);
        }
    }
}

// One that stands by goes through its links too, to know at once what to write when it takes over.
bool Bridge::MayCarryOutLinks() {
    const Standby& standby = m_presence.GetStandby();
    if (std::exchange(m_was_cut_off, standby.IsCutOff()) && !m_was_cut_off) {
        m_links.Resume();
    }
    return m_bus.IsUp() && (!m_was_cut_off || standby.IsAlone());
}

// Whether devices show what links have written. Also without the broker: a link that is lost then
// holds its output.
void Bridge::CompareOutputs() {
    for (const uint32_t tag : std::exchange(m_pins.Heard(), {})) {
        const PinView view = m_pins.ViewOf(tag);
        if (view.level && view.status == PinStatus::Told) {
            m_links.Told(tag, *view.level);
        }
        if (view.denied) {
            m_links.Denied(tag);
        }
    }
}

void Bridge::CarryOutLinks() {
    if (MayCarryOutLinks()) {
        for (const Links::Write& write : m_links.Tend(m_presence.OwnSign())) {
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
    if (m_presence.MayDrive() || m_presence.GetStandby().IsAlone()) {
        Send(write);
    } else {
        m_links.NotWritten(write.tag);
    }
}

void Bridge::Send(const Links::Write& write) {
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

void Bridge::FollowBus() {
    if (m_bus_up == m_bus.IsUp()) {
        return;
    }
    m_bus_up = m_bus.IsUp();
    if (m_bus_up) {
        m_links.WriteAgain();
    }
    if (m_presence.IsProved()) {
        if (m_presence.MayDrive()) {
            m_presence.PublishStatus(OFFLINE);
        }
        BeginAsking();
    }
}

void Bridge::FollowRole() {
    if (m_phase == Phase::StandingBy && m_presence.IsActive()) {
        m_tell("this bridge takes over site " + m_config.site);
        TakeOver();
    } else if (m_phase > Phase::StandingBy && !m_presence.IsActive()) {
        m_broker.Unsubscribe(m_topics.Sets());
        StandBy();
    }
}

void Bridge::StandBy() {
    m_phase = Phase::StandingBy;
    m_tell("site " + m_config.site + " stands by");
}

// The pins are known already, unless this bridge has just been started.
void Bridge::TakeOver() {
    m_broker.Subscribe(m_topics.Sets(), Broker::RETAINED_AS_PUBLISHED);
    m_publisher.Announce();
    if (m_phase == Phase::StandingBy) {
        m_phase = Phase::Asking;
        m_links.BePatient(PATIENCE);
    }
}

void Bridge::FollowPhase() {
    FollowBus();
    if (m_phase == Phase::StandingBy) {
        m_pins.Changes().clear();
    }
    if (m_phase == Phase::Asking && m_bus_up && !m_bus.IsReading()) {
        m_phase = Phase::Publishing;
        m_pins.TellAll();
    }
    if (m_phase == Phase::Publishing && m_publisher.IsDone()) {
        GoOnline();
    }
    FollowDropped();
}

void Bridge::FollowDropped() {
    if (m_pins.Dropped() != m_dropped && Now() >= m_next_complaint) {
        m_next_complaint = After(COMPLAIN_EVERY);
        m_tell("the broker is too slow: " + std::to_string(m_pins.Dropped() - m_dropped) +
               " events were dropped");
        m_dropped = m_pins.Dropped();
    }
}

void Bridge::GoOnline() {
    m_phase = Phase::Online;
    m_presence.PublishStatus(ONLINE);
    if (!m_config.standby) {
        m_broker.Unsubscribe(m_topics.Pins());
        m_broker.Unsubscribe(m_topics.Devices());
    }
    m_tell("site " + m_config.site + " is online");
}

// From here on nobody controls the links, unless another bridge has them or takes them over.
void Bridge::Stop() {
    const Standby& standby = m_presence.GetStandby();
    if (!m_config.standby || (standby.IsHolder() && !standby.HasPartner())) {
        for (const Links::Write& write : m_links.End()) {
            Send(write);
        }
    }
    if (m_config.standby) {
        m_presence.Leave();
    } else if (m_connection != 0) {
        m_presence.PublishStatus(OFFLINE);
    }
    m_broker.Leave();
}
