#include "tools/bus/PinJson.h"

#include "tools/bus/Interface.h"
#include "tools/bus/JsonFormat.h"
#include "tools/bus/PinName.h"

namespace {

Json LevelValue(std::optional<Level> level) {
    return level ? Json(LevelLetter(*level)) : Json();
}

// The first fields of every object.
Json Head(double time, uint32_t host, uint32_t tag, const Names& names) {
    Json json;
    json["time"] = time;
    json["host"] = host == 0 ? Json() : Json(HostText(host));
    json["pin"] = PinText(tag);
    PutNames(json, tag, names);
    return json;
}

}  // namespace

std::string ToJson(const PinFact& fact, const Names& names) {
    return ToJson(fact, {}, names);
}

std::string ToJson(const PinFact& fact, const std::set<uint32_t>& hosts, const Names& names) {
    Json json = Head(fact.time, fact.host, fact.tag, names);
    json["level"] = LevelValue(fact.level);
    for (const uint32_t host : hosts) {
        json["hosts"].push_back(HostText(host));
    }
    return Dump(json);
}

std::string ToJson(const PinChange& change, const Names& names) {
    Json json = Head(change.time, change.host, change.tag, names);
    json["kind"] = CauseText(change.cause);
    json["before"] = LevelValue(change.before);
    json["level"] = LevelValue(change.after);
    if (change.duration_ms > 0) {
        json["duration"] = change.duration_ms;
    }
    json["state"] = StatusText(change.status);
    if (change.denied) {
        json["denied"] = true;
    }
    return Dump(json);
}

const char* CauseText(PinChange::Cause cause) {
    switch (cause) {
        case PinChange::Cause::Reported:
            return "report";
        case PinChange::Cause::Answered:
            return "reply";
        case PinChange::Cause::Written:
            return "write";
        default:
            return "forgotten";
    }
}

const char* StatusText(PinStatus status) {
    switch (status) {
        case PinStatus::Told:
            return "told";
        case PinStatus::Written:
            return "written";
        default:
            return "unknown";
    }
}

std::string LevelText(std::optional<Level> level) {
    return level ? LevelLetter(*level) : "?";
}
