#include "tools/tsl/Rules.h"

#include <algorithm>
#include <utility>

#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"
#include "tools/bus/PinStates.h"

namespace {

const double REWRITE_PAUSE = 2;  // seconds, against an output that somebody else sets

bool Covers(const Display& display, const Display& place) {
    return display.version == place.version &&
           (display.screen == place.screen || display.screen == Display::ALL) &&
           (display.index == place.index || display.index == Display::ALL);
}

}  // namespace

std::vector<Rules::Write> Rules::Configure(const std::vector<TslRule>& rules) {
    std::vector<Rule> made;
    for (const TslRule& config : rules) {
        const auto same = std::find_if(m_rules.begin(), m_rules.end(), [&config](const Rule& rule) {
            return rule.config.IsSame(config);
        });
        Rule rule;
        if (same != m_rules.end()) {
            rule = *same;
        } else {
            rule.good = Now();
        }
        rule.config = config;
        made.push_back(rule);
    }
    std::vector<Write> writes;
    for (const Rule& old : m_rules) {
        if (std::none_of(made.begin(), made.end(),
                         [&old](const Rule& rule) { return rule.config.tag == old.config.tag; })) {
            Release(old, writes);
        }
    }
    m_rules = std::move(made);
    return writes;
}

// Nobody controls its output any more.
void Rules::Release(const Rule& rule, std::vector<Write>& writes) {
    if (rule.config.on_loss && rule.written != rule.config.on_loss) {
        writes.push_back({rule.config.tag, *rule.config.on_loss});
    }
}

void Rules::Take(const std::vector<Display>& displays, uint32_t host, TimePoint time) {
    for (const Display& display : displays) {
        for (Rule& rule : m_rules) {
            if (Covers(display, rule.config.place)) {
                rule.lit = rule.config.IsLit(display.tallies);
                rule.host = host;
                rule.doubtful = false;
                m_hosts.try_emplace(host, time);
            }
        }
    }
    const auto known = m_hosts.find(host);
    if (known != m_hosts.end()) {
        known->second = std::max(known->second, time);
    }
}

void Rules::Doubt() {
    for (Rule& rule : m_rules) {
        rule.doubtful = true;
    }
}

std::vector<Rules::Write> Rules::Tend() {
    std::vector<Write> writes;
    const TimePoint now = Now();
    for (Rule& rule : m_rules) {
        TendRule(rule, now, writes);
    }
    // Hosts that no rule depends on any more: their number stays below that of rules.
    for (auto host = m_hosts.begin(); host != m_hosts.end();) {
        const bool is_needed =
            std::any_of(m_rules.begin(), m_rules.end(),
                        [&host](const Rule& rule) { return rule.lit && rule.host == host->first; });
        host = is_needed ? std::next(host) : m_hosts.erase(host);
    }
    return writes;
}

void Rules::TendRule(Rule& rule, TimePoint now, std::vector<Write>& writes) {
    if (rule.lit && !rule.doubtful) {
        rule.good = m_hosts[rule.host];
    }
    const std::string what = "the display in line " + std::to_string(rule.config.line);
    if (rule.config.on_loss && now >= Later(rule.good, rule.config.loss_after)) {
        if (!rule.lost) {
            m_notes.push_back(what + " is lost: " +
                              (!rule.lit       ? "nobody has told it"
                               : rule.doubtful ? "datagrams were lost, and it was not told again"
                                               : HostText(rule.host) + " sends nothing"));
        }
        rule.lost = true;
        rule.lit.reset();
    } else if (rule.lit && rule.lost) {
        rule.lost = false;
        m_notes.push_back(what + " is told again, by " + HostText(rule.host));
    }
    std::optional<Level> level;
    if (rule.lit) {
        level = *rule.lit ? Level::Low : Level::High;
    } else if (rule.lost) {
        level = rule.config.on_loss;
    }
    if (now >= rule.again) {
        rule.again = TimePoint::max();
        rule.written.reset();
    }
    if (level && level != rule.written) {
        rule.doubts = level == rule.shown ? rule.doubts : 0;
        rule.written = level;
        rule.shown = level;
        rule.written_at = now;
        rule.again = TimePoint::max();
        writes.push_back({rule.config.tag, *level});
    }
}

TimePoint Rules::NextTime() const {
    TimePoint next = TimePoint::max();
    for (const Rule& rule : m_rules) {
        next = std::min(next, rule.again);
        if (rule.config.on_loss && !rule.lost) {
            const auto host = m_hosts.find(rule.host);
            const bool is_followed = rule.lit && !rule.doubtful && host != m_hosts.end();
            const TimePoint good = is_followed ? host->second : rule.good;
            next = std::min(next, Later(good, rule.config.loss_after));
        }
    }
    return next;
}

size_t Rules::LostCount() const {
    return static_cast<size_t>(
        std::count_if(m_rules.begin(), m_rules.end(), [](const Rule& rule) { return rule.lost; }));
}

void Rules::Told(uint32_t tag, std::optional<Level> level) {
    for (Rule& rule : m_rules) {
        if (rule.config.tag == tag && level && rule.written && level != rule.written) {
            // It may wait already, and longer, as it was denied.
            rule.again =
                std::min(rule.again, std::max(Now(), Later(rule.written_at, REWRITE_PAUSE)));
        }
    }
}

void Rules::Denied(uint32_t tag) {
    for (Rule& rule : m_rules) {
        if (rule.config.tag == tag && rule.written && rule.again == TimePoint::max()) {
            rule.again = std::max(Now(), Later(rule.written_at, DeniedPause(++rule.doubts)));
        }
    }
}

void Rules::NotWritten(uint32_t tag) {
    for (Rule& rule : m_rules) {
        if (rule.config.tag == tag) {
            rule.again = After(REWRITE_PAUSE);
        }
    }
}

void Rules::WriteAgain() {
    for (Rule& rule : m_rules) {
        rule.written.reset();
    }
}

std::vector<Rules::Write> Rules::End() {
    std::vector<Write> writes;
    for (const Rule& rule : m_rules) {
        Release(rule, writes);
    }
    return writes;
}
