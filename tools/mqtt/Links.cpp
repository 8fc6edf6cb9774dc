#include "tools/mqtt/Links.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "tools/bus/PinStates.h"

namespace {

const double FRESH = SHORTEST_LOSS;  // seconds; older heartbeats prove nothing
const double PACE = 0.25;        // seconds; heartbeats that have waited come in shorter intervals
const double REWRITE_PAUSE = 5;  // seconds, against an output that somebody else sets

}  // namespace

Links::Links(const MqttConfig& config, const LossFile::Times& losses) : m_prefix(config.prefix) {
    Build(config, losses);
}

void Links::Build(const MqttConfig& config, const LossFile::Times& losses) {
    for (const LinkConfig& link : config.links) {
        if (link.to.site == config.site) {
            const auto lost = losses.find(link.Text());
            const TimePoint good = lost == losses.end() ? Now() : lost->second;
            m_losses[link.Text()] = good;
            Link made;
            made.config = link;
            made.good = good;
            link.from.ForEachPin([&](const Expression& source) {
                const SitePin& pin = source.pin;
                Source& last = made.sources.emplace_back();
                last.pin = pin;
                last.topic = Topics(m_prefix, pin.site).Pin(pin.pin);
                last.good = good;
                m_sites[pin.site];
            });
            m_links.push_back(made);
        }
    }
}

std::vector<Links::Write> Links::Reload(const MqttConfig& config) {
    std::vector<Link> before = std::exchange(m_links, {});
    const std::map<std::string, Site> sites = std::exchange(m_sites, {});
    Build(config, std::exchange(m_losses, {}));
    for (auto& [name, site] : m_sites) {
        const auto known = sites.find(name);
        site = known == sites.end() ? site : known->second;
    }
    std::vector<Write> writes;
    for (Link& old : before) {
        const auto link = std::find_if(m_links.begin(), m_links.end(), [&old](const Link& one) {
            return one.config.to == old.config.to;
        });
        if (link != m_links.end()) {
            Keep(old, *link);
        } else if (old.config.on_loss && old.config.pulse_ms == 0) {
            Apply(old, *old.config.on_loss, "no link", writes);
        }
    }
    return writes;
}

// What is known of the same output's link before. Another source has to be heard first.
void Links::Keep(const Link& before, Link& link) {
    if (link.config.Text() == before.config.Text()) {
        const LinkConfig config = link.config;
        link = before;
        link.config = config;
    } else {
        link.applied = before.applied;
        link.written = before.written;
        link.shown = before.shown;
        link.shown_since = before.shown_since;
    }
}

std::set<std::string> Links::Subscriptions() const {
    std::set<std::string> topics;
    for (const Link& link : m_links) {
        for (const Source& source : link.sources) {
            topics.insert(source.topic);
        }
    }
    for (const auto& site : m_sites) {
        topics.insert(Topics(m_prefix, site.first).Status());
        topics.insert(Topics(m_prefix, site.first).Alive());
    }
    return topics;
}

void Links::Take(const Broker::Message& message, TimePoint own_sign) {
    for (auto& [name, site] : m_sites) {
        TakeSite(site, Topics(m_prefix, name), message);
    }
    for (Link& link : m_links) {
        for (Source& source : link.sources) {
            if (source.topic == message.topic) {
                TakeState(link, source, message, own_sign);
            }
        }
    }
}

void Links::TakeSite(Site& site, const Topics& topics, const Broker::Message& message) {
    if (message.topic == topics.Status()) {
        site.online = message.payload == ONLINE;
        site.was_seen = true;
    } else if (message.topic == topics.Alive() && !message.retained) {
        if (const auto sign = ParseSign(message.payload)) {
            TakeSign(site, *sign);
        }
    }
}

// After a pause, a cable or another broker may deliver at once all that it has kept, old states and
// the heartbeats between them. That is over when a heartbeat comes in its time.
void Links::TakeSign(Site& site, const Sign& sign) {
    const bool is_first = site.sign == TimePoint();
    if (site.sign <= After(-FRESH)) {
        site.is_paced = false;
        site.is_late = !is_first;
    } else if (site.sign <= After(-PACE)) {
        site.is_paced = true;
        site.is_late = false;
    }
    site.bridge = sign.bridge;
    site.sign = Now();
}

// A pulse is only due for a change that has just happened.
void Links::TakeState(Link& link, Source& source, const Broker::Message& message,
                      TimePoint own_sign) {
    const uint32_t bridge = source.bridge;
    const bool was_known = IsKnown(source, own_sign);
    const std::optional<Level> before = ValueOf(link, own_sign);
    TakeSource(link, source, message);
    const std::optional<Level> after = ValueOf(link, own_sign);
    if (!message.retained && was_known && m_sites.at(source.pin.site).is_paced &&
        source.bridge == bridge && before && after && before != after) {
        link.edge = after == Level::Low;
    }
}

void Links::TakeSource(const Link& link, Source& source, const Broker::Message& message) {
    const std::optional<PinView> view = ParseState(message.payload);
    source.level = view ? view->level : std::nullopt;
    source.bridge = view ? view->bridge : 0;
    source.via = view ? view->via : std::vector<std::string>();
    const std::string end = link.config.to.Text();
    const bool loops = std::count(source.via.begin(), source.via.end(), end) > 0;
    if (loops && !source.loops) {
        m_notes.push_back("a loop over several files is broken: " + source.pin.Text() +
                          " follows " + end);
    }
    source.loops = loops;
    source.via.push_back(source.pin.Text());
}

bool Links::IsKnown(const Source& source, TimePoint own_sign) const {
    const Site& site = m_sites.at(source.pin.site);
    return site.online && !site.is_late && source.level && source.bridge == site.bridge &&
           std::min(own_sign, site.sign) > After(-FRESH);
}

// None if the sources do not tell it.
std::optional<Level> Links::ValueOf(const Link& link, TimePoint own_sign) const {
    const auto level_of = [&](const Expression& pin) -> std::optional<Level> {
        const auto source = std::find_if(link.sources.begin(), link.sources.end(),
                                         [&](const Source& one) { return one.pin == pin.pin; });
        if (IsKnown(*source, own_sign)) {
            return source->level;
        }
        return Now() >= Later(source->good, link.config.loss_after) ? pin.when_lost : std::nullopt;
    };
    const std::optional<Level> value = link.config.from.Value(level_of);
    return value && link.config.invert ? Opposite(*value) : value;
}

std::vector<Links::Write> Links::Tend(TimePoint own_sign) {
    std::vector<Write> writes;
    for (Link& link : m_links) {
        if (!link.is_overruled) {
            TendLink(link, own_sign, writes);
        }
    }
    return writes;
}

void Links::TendLink(Link& link, TimePoint own_sign, std::vector<Write>& writes) {
    if (Now() >= link.again) {
        link.again = TimePoint::max();
        link.applied.reset();
    }
    Vouch(link, own_sign);
    const bool is_due = std::exchange(link.edge, false);
    if (const std::optional<Level> value = ValueOf(link, own_sign)) {
        link.lost = false;
        m_losses.erase(link.config.Text());
        if (link.config.pulse_ms == 0) {
            if (std::none_of(link.sources.begin(), link.sources.end(),
                             [](const Source& source) { return source.loops; })) {
                Apply(link, IsDue(link, *value) ? *value : *link.shown, {}, writes);
            }
        } else if (is_due) {
            writes.push_back({*link.config.to.tag, Level::Low, link.config.pulse_ms, {}});
        }
        return;
    }
    link.value.reset();
    link.due = TimePoint::max();
    m_losses[link.config.Text()] = link.good;
    if (Now() < std::max(Later(link.good, link.config.loss_after), m_patience)) {
        return;
    }
    if (!std::exchange(link.lost, true)) {
        NoteLoss(link, own_sign);
    }
    if (link.config.on_loss && link.config.pulse_ms == 0) {
        Apply(link, *link.config.on_loss, "loss", writes);
    }
}

// Whether the output may be set to the value already.
bool Links::IsDue(Link& link, Level value) {
    if (link.value != value) {
        link.value = value;
        link.value_since = Now();
    }
    TimePoint due{};
    if (link.shown && link.shown != value) {
        const double pause = link.shown == Level::Low
                                 ? std::max(link.config.hold, link.config.min_interval)
                                 : link.config.min_interval;
        due = std::max(Later(link.shown_since, pause), Later(link.value_since, link.config.delay));
    }
    link.due = due > Now() ? due : TimePoint::max();
    return due <= Now();
}

TimePoint Links::NextTime() const {
    TimePoint next = TimePoint::max();
    for (const Link& link : m_links) {
        next = std::min(next, link.due);
    }
    return next;
}

void Links::Vouch(Link& link, TimePoint own_sign) {
    TimePoint last{};
    for (Source& source : link.sources) {
        if (IsKnown(source, own_sign)) {
            source.good =
                std::max(source.good, std::min(own_sign, m_sites.at(source.pin.site).sign));
            last = std::max(last, source.good);
        }
    }
    if (ValueOf(link, own_sign)) {  // perhaps only because of what the lost ones count as
        link.good = std::max(link.good, last == TimePoint() ? Now() : last);
    }
}

void Links::NoteLoss(const Link& link, TimePoint own_sign) {
    std::string unknown;
    for (const Source& source : link.sources) {
        if (!IsKnown(source, own_sign)) {
            unknown += (unknown.empty() ? "" : ", ") + source.pin.Text();
            if (!m_sites.at(source.pin.site).was_seen) {
                unknown += " (nobody of that site was ever online)";
            }
        }
    }
    m_notes.push_back("link in line " + std::to_string(link.config.line) + " is lost: " + unknown);
}

void Links::Apply(Link& link, Level level, const std::string& reason, std::vector<Write>& writes) {
    if (link.applied == level) {
        return;
    }
    link.applied = level;
    link.written = Now();
    link.again = TimePoint::max();
    if (link.shown != level) {
        link.doubts = 0;
        const bool counts = link.shown || level == Level::Low;  // the first high changes nothing
        link.shown = level;
        link.shown_since = counts ? Now() : TimePoint();
    }
    writes.push_back({*link.config.to.tag, level, 0, reason});
}

void Links::Forget() {
    for (Link& link : m_links) {
        for (Source& source : link.sources) {
            source.level.reset();
        }
        link.edge = false;
    }
    for (auto& site : m_sites) {
        const bool was_seen = site.second.was_seen;
        site.second = Site();
        site.second.was_seen = was_seen;
    }
}

void Links::WriteAgain() {
    for (Link& link : m_links) {
        link.applied.reset();
    }
}

void Links::NotWritten(uint32_t tag) {
    for (Link& link : m_links) {
        if (link.config.to.tag == tag) {
            link.applied.reset();
        }
    }
}

void Links::Overrule(uint32_t tag) {
    for (Link& link : m_links) {
        link.is_overruled = link.is_overruled || link.config.to.tag == tag;
    }
}

void Links::Resume() {
    for (Link& link : m_links) {
        link.edge = false;
        if (std::exchange(link.is_overruled, false)) {
            link.applied.reset();
        }
    }
}

void Links::Told(uint32_t tag, Level level) {
    for (Link& link : m_links) {
        if (link.config.to.tag == tag && link.applied && link.applied != level) {
            // It may wait already, and longer, as it was denied.
            link.again = std::min(link.again, std::max(Now(), Later(link.written, REWRITE_PAUSE)));
        }
    }
}

void Links::Denied(uint32_t tag) {
    for (Link& link : m_links) {
        if (link.config.to.tag == tag && link.applied && link.again == TimePoint::max()) {
            link.again = std::max(Now(), Later(link.written, DeniedPause(++link.doubts)));
        }
    }
}

std::vector<Links::Write> Links::End() {
    std::vector<Write> writes;
    for (Link& link : m_links) {
        if (link.config.on_loss && link.config.pulse_ms == 0 && !link.is_overruled) {
            Apply(link, *link.config.on_loss, "end", writes);
        }
    }
    return writes;
}

std::vector<std::string> Links::ViaOf(uint32_t tag, std::optional<Level> level) const {
    for (const Link& link : m_links) {
        if (link.config.to.tag == tag && link.applied && link.applied == level && !link.lost) {
            std::vector<std::string> via;
            for (const Source& source : link.sources) {
                std::copy_if(source.via.begin(), source.via.end(), std::back_inserter(via),
                             [&via](const std::string& pin) {
                                 return std::find(via.begin(), via.end(), pin) == via.end();
                             });
            }
            return via;
        }
    }
    return {};
}

std::map<std::string, size_t> Links::CountByState() const {
    std::map<std::string, size_t> count{{"followed", 0}, {"unknown", 0}, {"lost", 0}};
    for (const Link& link : m_links) {
        ++count[link.lost                                ? "lost"
                : m_losses.count(link.config.Text()) > 0 ? "unknown"
                                                         : "followed"];
    }
    return count;
}

Links::Reason Links::ReasonOf(const SitePin& output, TimePoint own_sign) const {
    Reason reason;
    for (const Link& link : m_links) {
        if (link.config.to == output) {
            for (const Source& source : link.sources) {
                reason.sources.emplace_back(source.pin,
                                            IsKnown(source, own_sign) ? "" : TroubleOf(source));
            }
            reason.level = ValueOf(link, own_sign);
        }
    }
    return reason;
}

// Why a source is not known, if this bridge's own heartbeats come back.
std::string Links::TroubleOf(const Source& source) const {
    const Site& site = m_sites.at(source.pin.site);
    if (!site.online) {
        return site.was_seen ? "its site is offline" : "nobody of its site was ever online";
    }
    if (site.sign <= After(-FRESH)) {
        return "its bridge gives no heartbeats";
    }
    if (source.bridge != site.bridge) {
        return source.bridge == 0 ? "its bridge has not published it"
                                  : "only an earlier bridge has published it";
    }
    return source.level ? "its messages come late" : "its device does not tell it";
}
