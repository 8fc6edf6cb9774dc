#include "tools/mqtt/LinkConfig.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <stdexcept>
#include <utility>

#include "protocol/numbers.h"
#include "tools/mqtt/ConfigValues.h"

namespace {

using Words = std::vector<std::string>;

const double LONGEST_LOSS = 3600;  // seconds
const int LONGEST_DELAY = 60000;   // ms, also of hold and min-interval

bool IsPin(const std::string& text) {
    try {
        ParsePin(text);
        return true;
    } catch (const std::invalid_argument&) {
        return false;
    }
}

class LinkReader {
public:
    LinkReader(const Words& words, const std::string& site, const Names& names)
        : m_words(words), m_site(site), m_names(names) {}

    LinkConfig Run();

private:
    void ReadEnds(const Words::const_iterator& arrow);
    void ReadOption(size_t& next);
    SitePin ParseSitePin(const std::string& text) const;

    const Words& m_words;
    const std::string& m_site;
    const Names& m_names;
    LinkConfig m_link;
};

LinkConfig LinkReader::Run() {
    const auto arrow = std::find(m_words.begin(), m_words.end(), "->");
    if (arrow - m_words.begin() < 2 || m_words.end() - arrow < 2) {
        Refuse("not link SITE:PIN -> SITE:PIN");
    }
    ReadEnds(arrow);
    std::set<std::string> seen;
    for (auto next = static_cast<size_t>(arrow - m_words.begin()) + 2; next < m_words.size();) {
        if (!seen.insert(m_words[next]).second) {
            Refuse(m_words[next] + " is given twice");
        }
        ReadOption(next);
    }
    if (m_link.pulse_ms > 0 && m_link.delay + m_link.hold + m_link.min_interval > 0) {
        Refuse("delay, hold and min-interval are not for a pulse");
    }
    return m_link;
}

void LinkReader::ReadEnds(const Words::const_iterator& arrow) {
    std::string from;
    std::for_each(m_words.begin() + 1, arrow,
                  [&from](const std::string& word) { from += word + " "; });
    m_link.from =
        ParseExpression(from, [this](const std::string& text) { return ParseSitePin(text); });
    m_link.to = ParseSitePin(arrow[1]);
    bool is_own = m_link.to.site == m_site;
    m_link.from.ForEachPin(
        [&](const Expression& source) { is_own = is_own || source.pin.site == m_site; });
    if (!is_own) {
        Refuse("no pin is at this file's site, " + m_site);
    }
    if (m_link.to.tag && IsInput(*m_link.to.tag)) {
        Refuse(m_link.to.Text() + " is an input: devices do not set it");
    }
}

void LinkReader::ReadOption(size_t& next) {
    const std::string& option = m_words[next++];
    const auto value = [&]() -> const std::string& {
        if (next == m_words.size()) {
            Refuse(option + " needs a value");
        }
        return m_words[next++];
    };
    if (option == "invert") {
        m_link.invert = true;
    } else if (option == "pulse") {
        m_link.pulse_ms = static_cast<unsigned int>(ParseWhole(value(), 10, LONGEST_PULSE_MS));
    } else if (option == "delay" || option == "hold" || option == "min-interval") {
        double& seconds = option == "delay"  ? m_link.delay
                          : option == "hold" ? m_link.hold
                                             : m_link.min_interval;
        seconds = ParseWhole(value(), 1, LONGEST_DELAY) / 1000.0;
    } else if (option == "on-loss") {
        const std::string& level = value();
        m_link.on_loss = level == "keep" ? std::nullopt : std::optional<Level>(ParseLevel(level));
        if (next < m_words.size() &&
            std::isdigit(static_cast<unsigned char>(m_words[next][0])) != 0) {
            m_link.loss_after = ParseNumber(value(), SHORTEST_LOSS, LONGEST_LOSS);
        }
    } else {
        Refuse("unknown option of a link: " + option);
    }
}

SitePin LinkReader::ParseSitePin(const std::string& text) const {
    const size_t colon = text.find(':');
    if (colon == 0 || colon == text.npos || colon + 1 == text.size()) {
        Refuse("not SITE:PIN: " + text);
    }
    if (IsPin(text)) {
        Refuse("not SITE:PIN, there is no site: " + text);
    }
    SitePin pin;
    pin.site = ParseLevelName(text.substr(0, colon));
    pin.pin = text.substr(colon + 1);
    const bool own = pin.site == m_site;
    if (own || std::isdigit(static_cast<unsigned char>(pin.pin[0])) != 0) {
        pin.tag = own ? m_names.ParsePin(pin.pin) : ParsePin(pin.pin);
        pin.pin = PinText(*pin.tag);
    } else {
        for (const char c : pin.pin) {
            ParseLevelName(c == ':' ? std::string() : std::string(1, c));
        }
    }
    return pin;
}

// Whether end sets pin, through however many links. Adds the way to it before way.
bool FindWay(const SitePin& pin, const SitePin& end, const std::vector<LinkConfig>& links,
             std::set<std::string>& visited, std::string& way) {
    if (pin == end) {
        return true;
    }
    bool is_found = false;
    for (const LinkConfig& link : links) {
        if (!(link.to == pin) || !visited.insert(pin.Text()).second) {
            continue;
        }
        link.from.ForEachPin([&](const Expression& source) {
            if (!is_found && FindWay(source.pin, end, links, visited, way)) {
                is_found = true;
                way.insert(0, source.pin.Text() + " -> ");
            }
        });
    }
    return is_found;
}

}  // namespace

LinkConfig ParseLink(const std::vector<std::string>& words, const std::string& site,
                     const Names& names) {
    return LinkReader(words, site, names).Run();
}

std::optional<std::string> RefusalOf(const LinkConfig& link,
                                     const std::vector<LinkConfig>& others) {
    for (const LinkConfig& other : others) {
        if (other.to == link.to) {
            return link.to.Text() + " is set by the link in line " + std::to_string(other.line) +
                   " already; for both: link any(" + other.from.Text() + ", " + link.from.Text() +
                   ") -> " + link.to.Text();
        }
    }
    std::optional<std::string> refusal;
    link.from.ForEachPin([&](const Expression& source) {
        std::set<std::string> visited;
        std::string way = source.pin.Text() + " -> " + link.to.Text();
        if (!refusal && FindWay(source.pin, link.to, others, visited, way)) {
            refusal = "a loop: " + way;
        }
    });
    return refusal;
}
