#include "tools/ctl/MessageText.h"

#include <cstdio>
#include <ctime>

#include "tools/bus/MessageJson.h"
#include "tools/bus/PinName.h"

namespace {

std::string Line(const std::string& head, const std::string& rest) {
    const std::string line = head + rest;
    return line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
}

}  // namespace

std::string Padded(const std::string& text, size_t width) {
    return text.size() < width ? text + std::string(width - text.size(), ' ') : text;
}

std::string TimeText(double time) {
    const double seconds = static_cast<double>(static_cast<long long>(time));
    const time_t whole = static_cast<time_t>(seconds);
    tm local = {};
    localtime_r(&whole, &local);
    char text[32];
    snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>((time - seconds) * 1000));
    return text;
}

namespace {

std::string KindText(const Traffic& traffic) {
    const Kind kind = traffic.GetKind();
    return kind == Kind::Other ? IdText(static_cast<uint32_t>(traffic.message.GetId()))
                               : KindName(kind);
}

std::string TagText(uint32_t tag) {
    if (tag == TAG_REQUEST_ID) {
        return "request";
    }
    if (tag == TAG_REFERS_TO) {
        return "refers to";
    }
    char text[16];
    snprintf(text, sizeof text, "0x%08X", tag);
    return text;
}

// The last columns; empty if the item is not shown.
std::string ItemText(Kind kind, const CMsg2::Node& item, const TextForm& form) {
    const size_t width = 12;
    if (kind != Kind::Other && IsNamedPin(item.m_nTag)) {
        const PinValue value = PinValueOf(kind, item);
        if (form.wanted && !form.everything && !form.wanted(item.m_nTag)) {
            return {};
        }
        return Padded(Padded(PinText(item.m_nTag), width) + "  " + LevelText(value), width + 5) +
               "  " + form.names.NameOf(item.m_nTag);
    }
    if (kind != Kind::Other && !form.everything) {
        return {};
    }
    return Padded(TagText(item.m_nTag), width) + "  " + TypeText(item) + " " + ValueText(item);
}

}  // namespace

std::string ToText(const Traffic& traffic, const TextForm& form) {
    const std::string head = TimeText(traffic.time) + "  " +
                             Padded(traffic.host.empty() ? "(sent)" : traffic.host, 15) + "  " +
                             Padded(KindText(traffic), 6) + "  ";
    std::string lines;
    for (unsigned int i = 0; i < traffic.message.GetItemCount(); ++i) {
        const std::string text = ItemText(traffic.GetKind(), *traffic.message.GetItem(i), form);
        if (!text.empty()) {
            lines += Line(head, text);
        }
    }
    return lines.empty() ? Line(head, "(no pins)") : lines;
}

std::string LevelText(const PinValue& value) {
    const std::string level = value.level ? LevelLetter(*value.level) : "";
    return value.duration_ms == 0 ? level
                                  : level + " for " + std::to_string(value.duration_ms) + " ms";
}
