#include "tools/mqtt/Explain.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

#include "tools/base/LineBuffer.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinJson.h"
#include "tools/mqtt/Broker.h"
#include "tools/mqtt/Links.h"
#include "tools/mqtt/PinBook.h"
#include "tools/mqtt/Topics.h"

namespace {

// In seconds:
const double CONNECT_TIME = 10;
const double LISTEN_TIME = 1.5;  // for what is retained, and for a heartbeat of each site

const uint32_t SOME_BRIDGE = 1;  // its number, if the bus is asked

const char* const NOT_KNOWN = "not known";

void PrintLine(const std::string& text) {
    printf("%s\n", PrintableAscii(text).c_str());
}

std::string Duration(double seconds) {
    const long whole = static_cast<long>(std::clamp(seconds, 0.0, 1e9));
    if (whole < 120) {
        return std::to_string(whole) + " s";
    }
    return whole < 7200 ? std::to_string(whole / 60) + " min" : std::to_string(whole / 3600) + " h";
}

const LinkConfig& FindLink(const MqttConfig& config, const std::string& pin) {
    std::optional<uint32_t> own;
    try {
        own = config.names.ParsePin(pin);
    } catch (const std::invalid_argument&) {
        // With its site, or nothing that a link sets.
    }
    for (const LinkConfig& link : config.links) {
        if (link.to.Text() == pin || (own && link.to.site == config.site && link.to.tag == own)) {
            return link;
        }
    }
    throw std::runtime_error("no link in " + config.file + " sets " + pin);
}

class Explainer {
public:
    Explainer(const MqttConfig& config, const LinkConfig& link);

    void Run();

private:
    void Connect();
    void Print() const;
    void Serve(TimePoint end);
    void TakeMessages();
    void Take(const Broker::Message& message);
    void Take(const std::string& topic, const std::string& payload);
    void AskBus();
    void TakePin(const PinBook& pins, const SitePin& pin);
    std::string StateOf(const SitePin& pin) const;
    std::string ResultOf(std::optional<Level> level) const;

    const LinkConfig m_link;
    const MqttConfig m_config;   // as if it were that of the output's site, with this link alone
    const std::string m_state;   // the topic of the output's state
    const std::string m_status;  // and of its site's status
    Links m_links;
    std::map<std::string, std::string> m_payloads;  // by topic
    std::string m_told;                             // by the connection
    Broker m_broker;
};

MqttConfig ConfigOf(const MqttConfig& config, const LinkConfig& link) {
    MqttConfig other = config;
    other.site = link.to.site;
    other.links = {link};
    other.pins.clear();
    if (config.is_local) {
        link.from.ForEachPin(
            [&](const Expression& source) { other.pins.push_back(ParsePinRef(source.pin.pin)); });
        other.pins.push_back(ParsePinRef(link.to.pin));
    }
    return other;
}

// Nobody has vouched for its sources ever: those that are not known count as lost.
Explainer::Explainer(const MqttConfig& config, const LinkConfig& link)
    : m_link(link),
      m_config(ConfigOf(config, link)),
      m_state(Topics(m_config).Pin(link.to.pin)),
      m_status(Topics(m_config).Status()),
      m_links(m_config, {{link.Text(), TimePoint()}}),
      m_broker(
          m_config, [this](const std::string& text) { m_told = text; }, Broker::As::Guest) {}

void Explainer::Serve(TimePoint end) {
    m_broker.Flush();
    pollfd fd = {m_broker.Socket(), m_broker.Events(), 0};
    poll(&fd, 1, MillisecondsUntil(std::min(m_broker.NextTime(), end)));
    m_broker.Serve((fd.revents & ~POLLOUT) != 0, (fd.revents & POLLOUT) != 0);
    TakeMessages();
}

void Explainer::Connect() {
    for (const TimePoint end = After(CONNECT_TIME); m_broker.Connection() == 0;) {
        if (Now() >= end) {
            throw std::runtime_error(m_told.empty() ? "no connection to the broker" : m_told);
        }
        Serve(end);
    }
    std::set<std::string> topics = m_links.Subscriptions();
    topics.insert({m_state, m_status});
    for (const std::string& topic : topics) {
        m_broker.Subscribe(topic);
    }
}

void Explainer::Take(const std::string& topic, const std::string& payload) {
    Broker::Message message;
    message.topic = topic;
    message.payload = payload;
    Take(message);
}

// As its bridge would publish it.
void Explainer::TakePin(const PinBook& pins, const SitePin& pin) {
    PinView view = pins.ViewOf(*pin.tag);
    view.bridge = SOME_BRIDGE;
    Take(Topics(m_config).Pin(pin.pin), StateText(view, *pin.tag, m_config.names));
}

void Explainer::AskBus() {
    PinBook pins(m_config, [](const std::string&) {});
    PinFollower& bus = pins.Follower();
    pins.AskAll({});
    for (const TimePoint end = After(LISTEN_TIME); bus.IsReading() && Now() < end;) {
        std::vector<pollfd> fds;
        for (const int fd : bus.Descriptors()) {
            fds.push_back({fd, POLLIN, 0});
        }
        poll(fds.data(), fds.size(), MillisecondsUntil(std::min(bus.NextTime(), end)));
        bus.Serve();
    }
    Take(m_status, ONLINE);
    Take(Topics(m_config).Alive(), SignText({SOME_BRIDGE, 1}));
    m_link.from.ForEachPin([&](const Expression& source) { TakePin(pins, source.pin); });
    TakePin(pins, m_link.to);
    Print();
}

void Explainer::Run() {
    if (m_config.is_local) {
        return AskBus();
    }
    Connect();
    for (const TimePoint end = After(LISTEN_TIME); Now() < end;) {
        Serve(end);
        if (m_broker.Connection() == 0) {
            throw std::runtime_error(m_told);
        }
    }
    Print();
    m_broker.Leave();
}

void Explainer::TakeMessages() {
    for (const Broker::Message& message : m_broker.Inbox()) {
        Take(message);
    }
    m_broker.Inbox().clear();
}

void Explainer::Take(const Broker::Message& message) {
    m_payloads[message.topic] = message.payload;
    m_links.Take(message, Now());
}

// What the broker has retained about the pin; empty if nothing.
std::string Explainer::StateOf(const SitePin& pin) const {
    const auto payload = m_payloads.find(Topics(m_config.prefix, pin.site).Pin(pin.pin));
    const auto view = payload == m_payloads.end() ? std::nullopt : ParseState(payload->second);
    if (!view) {
        return {};
    }
    if (!view->level) {
        return NOT_KNOWN;
    }
    std::string text = LevelText(view->level);
    const Json json = Json::parse(payload->second, nullptr, false);
    if (json.contains("state") && json["state"].is_string()) {
        text += ", " + json["state"].get<std::string>();
    }
    if (json.contains("host") && json["host"].is_string()) {
        text += " by " + json["host"].get<std::string>();
    }
    if (json.contains("since") && json["since"].is_number()) {
        text += ", for " + Duration(TimeOfDay() - json["since"].get<double>());
    }
    return text;
}

void Explainer::Print() const {
    const auto status = m_payloads.find(m_status);
    const bool is_online = status != m_payloads.end() && status->second == ONLINE;
    const std::string own = StateOf(m_link.to);
    PrintLine(m_link.to.Text() + ": " + (own.empty() ? "not published" : own) +
              (is_online ? "" : "; its site is offline: nobody sets it"));
    PrintLine("set by the link in line " + std::to_string(m_link.line) + ": " + m_link.Text());
    const Links::Reason reason = m_links.ReasonOf(m_link.to, Now());
    for (const auto& [pin, trouble] : reason.sources) {
        std::string state = StateOf(pin);
        if (!trouble.empty()) {
            const bool is_published = !state.empty() && state != NOT_KNOWN;
            state = NOT_KNOWN + (": " + trouble) + (is_published ? "; published as " + state : "");
        }
        PrintLine("  " + pin.Text() + ": " + state);
    }
    PrintLine(ResultOf(reason.level));
}

// What the sources make of the output.
std::string Explainer::ResultOf(std::optional<Level> level) const {
    if (m_link.pulse_ms > 0) {
        return "so the output is set L for " + std::to_string(m_link.pulse_ms) +
               " ms when they next become " + (m_link.invert ? "H" : "L");
    }
    if (!level) {
        return "so the link is lost, and the output " +
               (m_link.on_loss ? "is to be " + LevelText(m_link.on_loss) : "keeps its level");
    }
    const bool may_wait = m_link.delay + m_link.hold + m_link.min_interval > 0;
    return "so the output is to be " + LevelText(level) + (m_link.invert ? ", inverted" : "") +
           (may_wait ? ", once delay, hold and min-interval let it" : "");
}

}  // namespace

void Explain(const MqttConfig& config, const std::string& pin) {
    Explainer explainer(config, FindLink(config, pin));
    explainer.Run();
}
