#include "tools/bus/StateJson.h"

#include <cstdio>

#include "tools/base/Time.h"
#include "tools/bus/Interface.h"
#include "tools/bus/PinName.h"

namespace {

Json LevelValue(std::optional<Level> level) {
    return level ? Json(LevelLetter(*level)) : Json();
}

Json HostValue(uint32_t host) {
    return host == 0 ? Json() : Json(HostText(host));
}

}  // namespace

Json TopJson(uint32_t tag, const PinState& state, const Names& names) {
    Json json = {{"time", state.since ? state.since->time : 0},
                 {"host", HostValue(state.since ? state.since->host : 0)},
                 {"pin", PinText(tag)}};
    PutNames(json, tag, names);
    json["level"] = LevelValue(state.level);
    json["state"] = StatusText(state.status);
    if (state.denied) {
        json["denied"] = true;
    }
    json["writer"] = HostValue(state.written ? state.written->host : 0);
    return json;
}

Json BoardJson(uint32_t tag, const PinState& state, const Names& names) {
    Json json = {{"pin", PinText(tag)}};
    PutBoardNames(json, tag, names);
    json["level"] = LevelValue(state.level);
    json["state"] = StatusText(state.status);
    json["since"] = state.since ? Json(WholeMilliseconds(state.since->time)) : Json();
    if (state.told) {
        json["by"] = HostText(state.told->host);
        json["heard"] = WholeMilliseconds(state.told->time);
    }
    if (state.denied) {
        json["denied"] = true;
    }
    if (state.written) {
        json["write"] = {{"level", LevelLetter(state.written_level)},
                         {"duration", state.duration_ms},
                         {"by", HostText(state.written->host)},
                         {"at", WholeMilliseconds(state.written->time)}};
    }
    return json;
}

void PutBoardNames(Json& json, uint32_t tag, const Names& names) {
    const std::pair<const char*, std::string> fields[] = {
        {"name", names.NameOf(tag)}, {"title", names.TextOf(tag)}, {"group", names.GroupOf(tag)}};
    for (const auto& [key, text] : fields) {
        if (!text.empty()) {
            json[key] = text;
        }
    }
}

std::string MqttText(const PinFact& fact, PinStatus status, const Json& more, const Names& names) {
    const std::string level = fact.level ? "\"" + LevelText(fact.level) + "\"" : "null";
    const std::string host = fact.host != 0 ? "\"" + HostText(fact.host) + "\"" : "null";
    char since[32] = "null";
    if (fact.time != 0) {
        snprintf(since, sizeof since, "%.6f", fact.time);
    }
    std::string text = "{\"level\":" + level + ",\"state\":\"" + StatusText(status) +
                       "\",\"since\":" + since + ",\"host\":" + host + ",\"pin\":\"" +
                       PinText(fact.tag) + "\"}";
    Json rest;
    PutNames(rest, fact.tag, names);
    rest.update(more);
    if (!rest.empty()) {
        text.back() = ',';
        text += Dump(rest).substr(1);
    }
    return text;
}
