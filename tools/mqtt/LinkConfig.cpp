#include "tools/mqtt/LinkConfig.h"

#include <set>

namespace {

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
