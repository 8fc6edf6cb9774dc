#include "tools/mqtt/LinkConfig.h"

std::optional<std::string> RefusalOf(const LinkConfig& link,
                                     const std::vector<LinkConfig>& others) {
    for (const LinkConfig& other : others) {
        if (other.to == link.to) {
            return link.to.Text() + " is set by the link in line " + std::to_string(other.line) +
                   " already";
        }
    }
    // Every pin is set by at most one link, so there is one way back from the source.
    std::string way = link.from.Text() + " -> " + link.to.Text();
    SitePin pin = link.from;
    for (size_t steps = 0; steps <= others.size(); ++steps) {
        if (pin == link.to) {
            return "a loop: " + way;
        }
        const LinkConfig* before = nullptr;
        for (const LinkConfig& other : others) {
            before = other.to == pin ? &other : before;
        }
        if (before == nullptr) {
            return std::nullopt;
        }
        pin = before->from;
        way.insert(0, pin.Text() + " -> ");
    }
    return std::nullopt;
}
