#include "tools/mqtt/Topics.h"

#include <algorithm>
#include <cinttypes>
#include <stdexcept>

#include "protocol/numbers.h"
#include "tools/bus/StateJson.h"

const char* const ONLINE = "online";
const char* const OFFLINE = "offline";

namespace {

const size_t LONGEST_SET = 256;
const size_t LONGEST_STATE = 8192;
const size_t MOST_LINKS = 64;

// For a text that may contain anything.
Json Parse(const std::string& text) {
    return Json::parse(text, nullptr, false);
}

// The text without the white space around it.
std::string Trimmed(const std::string& text) {
    const char* const blanks = " \t\r\n";
    const size_t begin = text.find_first_not_of(blanks);
    return begin == text.npos ? std::string()
                              : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

bool BeginsWith(const std::string& text, const std::string& begin) {
    return text.compare(0, begin.size(), begin) == 0;
}

}  // namespace

std::string Topics::Parts(std::string pin) {
    std::replace(pin.begin(), pin.end(), ':', '/');
    return pin;
}

bool Topics::IsOfState(const std::string& topic) const {
    return BeginsWith(topic, Pin("")) || BeginsWith(topic, Device(""));
}

std::string Topics::PinAfter(const std::string& begin, const std::string& topic) {
    if (!BeginsWith(topic, begin)) {
        return {};
    }
    std::string pin = topic.substr(begin.size());
    std::replace(pin.begin(), pin.end(), '/', ':');
    return pin;
}

std::string StateText(const PinView& view, uint32_t tag, const Names& names) {
    Json more = {{"bridge", view.bridge}};
    if (!view.via.empty()) {
        more["via"] = view.via;
    }
    return MqttText({tag, view.level, view.since, view.host}, view.status, more, names);
}

std::optional<PinView> ParseState(const std::string& text) {
    PinView view;
    if (text.size() > LONGEST_STATE) {
        return std::nullopt;
    }
    const Json json = Parse(text);
    if (!json.is_object() || !json.contains("level")) {
        return std::nullopt;
    }
    const Json& level = json["level"];
    if (level == "L" || level == "H") {
        view.level = level == "L" ? Level::Low : Level::High;
    }
    if (json.contains("bridge") && json["bridge"].is_number_unsigned()) {
        view.bridge = json["bridge"].get<uint32_t>();
    }
    if (json.contains("via") && json["via"].is_array()) {
        for (const Json& pin : json["via"]) {
            if (!pin.is_string() || view.via.size() == MOST_LINKS) {
                return std::nullopt;
            }
            view.via.push_back(pin.get<std::string>());
        }
    }
    return view;
}

std::string SignText(const Sign& sign) {
    return std::to_string(sign.bridge) + " " + std::to_string(sign.count);
}

std::optional<Sign> ParseSign(const std::string& text) {
    Sign sign{};
    if (sscanf(text.c_str(), "%" SCNu32 " %lu", &sign.bridge, &sign.count) != 2 ||
        SignText(sign) != text) {
        return std::nullopt;
    }
    return sign;
}

SetRequest ParseSet(const std::string& payload) {
    if (payload.size() > LONGEST_SET) {
        throw std::invalid_argument("too long");
    }
    std::string text = Trimmed(payload);
    if (!text.empty() && text[0] == '{') {
        const Json json = Parse(text);
        if (!json.is_object() || !json.contains("level") || !json["level"].is_string()) {
            throw std::invalid_argument("not an object with a level");
        }
        text = json["level"].get<std::string>();
        if (json.contains("duration")) {
            if (!json["duration"].is_number_unsigned()) {
                throw std::invalid_argument("not a duration in ms");
            }
            text += "," + json["duration"].dump();
        }
    }
    // As orvexctl reads it. The pin does not matter.
    const PinWrite write = ParsePinWrite("0:0:0=" + text, Names());
    if (write.duration_ms > LONGEST_PULSE_MS) {
        throw std::invalid_argument("longer than " + std::to_string(LONGEST_PULSE_MS) + " ms");
    }
    return {write.value.GetLevel(), write.duration_ms};
}

std::string AnswerText(const std::string& result, const std::string& pin,
                       const std::string& reason) {
    Json json = {{"result", result}, {"pin", pin}};
    if (!reason.empty()) {
        json["reason"] = reason;
    }
    return Dump(json);
}
