#include "tools/mqtt/Links.h"

#include <algorithm>

namespace {

const double FRESH = SHORTEST_LOSS;  // seconds; older heartbeats prove nothing
const double REWRITE_PAUSE = 5;      // seconds, against an output that somebody else sets

Level Inverted(Level level, bool invert) {
    if (!invert) {
        return level;
    }
    return level == Level::Low ? Level::High : Level::Low;
}

}  // namespace

Links::Links(const MqttConfig& config, const LossFile::Times& losses)
    : m_prefix(config.prefix), m_losses(losses) {
    for (const LinkConfig& link : config.links) {
        if (link.to.site == config.site) {
            Link made;
            made.config = link;
            made.topic = Topics(m_prefix, link.from.site).Pin(link.from.pin);
            made.good = m_losses.try_emplace(link.Text(), Now()).first->second;
            m_links.push_back(made);
            m_sites[link.from.site];
        }
    }
}

std::set<std::string> Links::Subscriptions() const {
    std::set<std::string> topics;
    for (const Link& link : m_links) {
        topics.insert(link.topic);
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
        if (link.topic == message.topic) {
            TakeSource(link, message, own_sign);
        }
    }
}

void Links::TakeSite(Site& site, const Topics& topics, const Broker::Message& message) {
    if (message.topic == topics.Status()) {
        site.online = message.payload == ONLINE;
        site.was_seen = true;
    } else if (message.topic == topics.Alive() && !message.retained) {
        if (const auto sign = ParseSign(message.payload)) {
            site.bridge = sign->bridge;
            site.sign = Now();
        }
    }
}

void Links::TakeSource(Link& link, const Broker::Message& message, TimePoint own_sign) {
    const std::optional<PinView> view = ParseState(message.payload);
    const Site& site = m_sites[link.config.from.site];
    const std::optional<Level> before =
        view && view->bridge == link.bridge ? link.source : std::nullopt;
    link.source = view ? view->level : std::nullopt;
    link.bridge = view ? view->bridge : 0;
    link.via = view ? view->via : std::vector<std::string>();
    const std::string end = link.config.to.Text();
    const bool loops = std::count(link.via.begin(), link.via.end(), end) > 0;
    if (loops && !link.loops) {
        m_notes.push_back("a loop over several files is broken: " + link.config.from.Text() +
                          " follows " + end);
    }
    link.loops = loops;
    link.via.push_back(link.config.from.Text());
    const TimePoint limit = After(-FRESH);
    if (!message.retained && own_sign > limit && site.sign > limit && site.bridge == link.bridge &&
        before && link.source && before != link.source && !loops) {
        link.edge = Inverted(*link.source, link.config.invert) == Level::Low;
    }
}

std::vector<Links::Write> Links::Tend(TimePoint own_sign) {
    std::vector<Write> writes;
    for (Link& link : m_links) {
        TendLink(link, own_sign, writes);
    }
    return writes;
}

void Links::TendLink(Link& link, TimePoint own_sign, std::vector<Write>& writes) {
    const Site& site = m_sites[link.config.from.site];
    const TimePoint sign = std::min(own_sign, site.sign);
    const bool is_known = site.online && link.source && link.bridge == site.bridge;
    if (is_known) {
        link.good = std::max(link.good, sign);
    }
    if (Now() >= link.again) {
        link.again = TimePoint::max();
        link.applied.reset();
    }
    if (is_known && sign > After(-FRESH)) {
        link.lost = false;
        m_losses.erase(link.config.Text());
        if (link.config.pulse_ms > 0) {
            if (link.edge) {
                writes.push_back({*link.config.to.tag, Level::Low, link.config.pulse_ms, {}});
            }
        } else if (!link.loops) {
            Apply(link, Inverted(*link.source, link.config.invert), {}, writes);
        }
        link.edge = false;
        return;
    }
    m_losses[link.config.Text()] = link.good;
    if (Now() >= Later(link.good, link.config.loss_after)) {
        if (!link.lost) {
            link.lost = true;
            m_notes.push_back("link in line " + std::to_string(link.config.line) +
                              " is lost: " + link.config.from.Text() +
                              (site.was_seen ? "" : ", nobody of that name was ever online"));
        }
        if (link.config.on_loss && link.config.pulse_ms == 0) {
            Apply(link, *link.config.on_loss, "loss", writes);
        }
    }
    link.edge = false;
}

void Links::Apply(Link& link, Level level, const std::string& reason, std::vector<Write>& writes) {
    if (link.applied == level) {
        return;
    }
    link.applied = level;
    link.written = Now();
    writes.push_back({*link.config.to.tag, level, 0, reason});
}

void Links::Forget() {
    for (Link& link : m_links) {
        link.source.reset();
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

void Links::Told(uint32_t tag, Level level) {
    for (Link& link : m_links) {
        if (link.config.to.tag == tag && link.applied && link.applied != level &&
            link.again == TimePoint::max()) {
            link.again = std::max(Now(), Later(link.written, REWRITE_PAUSE));
        }
    }
}

std::vector<Links::Write> Links::End() {
    std::vector<Write> writes;
    for (Link& link : m_links) {
        if (link.config.on_loss && link.config.pulse_ms == 0) {
            Apply(link, *link.config.on_loss, "end", writes);
        }
    }
    return writes;
}

std::vector<std::string> Links::ViaOf(uint32_t tag, std::optional<Level> level) const {
    for (const Link& link : m_links) {
        if (link.config.to.tag == tag && link.applied && link.applied == level && !link.lost) {
            return link.via;
        }
    }
    return {};
}
