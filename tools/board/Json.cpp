#include "tools/board/Json.h"

#include <cmath>

#include "tools/bus/Escape.h"
#include "tools/bus/Interface.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinName.h"
#include "tools/bus/PinStates.h"
#include "tools/tqrd/ChannelTable.h"

namespace {

OrderedJson LevelJson(const std::optional<bool>& low) {
    return low ? OrderedJson(*low ? "L" : "H") : OrderedJson();
}

void AddNames(OrderedJson& json, uint32_t tag, const Names& names) {
    const std::pair<const char*, std::string> fields[] = {
        {"name", names.NameOf(tag)}, {"title", names.TextOf(tag)}, {"group", names.GroupOf(tag)}};
    for (const auto& [key, text] : fields) {
        if (!text.empty()) {
            json[key] = text;
        }
    }
}

int64_t Milliseconds(const Heard& heard) {
    return static_cast<int64_t>(std::llround(heard.time * 1000));
}

const char* StatusText(PinStatus status) {
    return status == PinStatus::Told      ? "told"
           : status == PinStatus::Written ? "written"
                                          : "unknown";
}

}  // namespace

std::string Dump(const OrderedJson& json) {
    return json.dump(-1, ' ', false, OrderedJson::error_handler_t::replace);
}

OrderedJson PinJson(uint32_t tag, const PinState& state, const PinNotes& notes,
                    const std::string& by, const Names& names) {
    const bool known = state.level && !notes.lost;
    OrderedJson json;
    json["pin"] = PinText(tag);
    AddNames(json, tag, names);
    json["level"] = known ? OrderedJson(LevelLetter(*state.level)) : OrderedJson();
    json["state"] = known ? StatusText(state.status) : "unknown";
    json["since"] = state.since ? OrderedJson(Milliseconds(*state.since)) : OrderedJson();
    if (state.told) {
        json["by"] = by;
        json["heard"] = Milliseconds(*state.told);
    }
    if (state.denied) {
        json["denied"] = true;
    }
    if (state.written && notes.written) {
        json["write"] = {{"level", LevelLetter(*notes.written)},
                         {"duration", state.duration_ms},
                         {"by", HostText(state.written->host)},
                         {"at", Milliseconds(*state.written)}};
    }
    return json;
}

OrderedJson DeviceJson(const std::string& host, const Device& device,
                       const std::vector<std::string>& addresses) {
    return {{"host", host},
            {"first", device.first},
            {"heard", device.heard},
            {"missing", device.missing},
            {"messages", device.messages},
            {"addresses", addresses}};
}

OrderedJson ChannelJson(int number, const ChannelInfo& channel) {
    OrderedJson json = {{"channel", number}, {"configured", channel.is_configured}};
    if (channel.is_configured) {
        json["source"] = EscapeBytes(channel.source);
        json["meaning"] = EscapeBytes(DescribeSource(channel.config));
    }
    json["output"] = EscapeBytes(channel.output);
    json["input"] = EscapeBytes(channel.input);
    return json;
}

const char* KindText(EventKind kind) {
    switch (kind) {
        case EventKind::Told:
            return "told";
        case EventKind::Written:
            return "written";
        case EventKind::SetAsked:
            return "set";
        case EventKind::DeviceFirst:
            return "device-first";
        case EventKind::DeviceMissing:
            return "device-missing";
        case EventKind::DeviceBack:
            return "device-back";
        case EventKind::GapBegin:
            return "gap-begin";
        case EventKind::GapEnd:
            return "gap-end";
        case EventKind::ClockSetBack:
            return "clock-set-back";
    }
    return "unknown";
}

OrderedJson EventJson(const Event& event, const Names& names) {
    OrderedJson json = {{"id", event.id}, {"time", event.time}, {"kind", KindText(event.kind)}};
    if (event.tag) {
        json["pin"] = PinText(*event.tag);
        AddNames(json, *event.tag, names);
        json["level"] = LevelJson(event.low);
    }
    if (event.duration != 0) {
        json["duration"] = event.duration;
    }
    if (!event.host.empty()) {
        json["host"] = event.host;
    }
    if (!event.text.empty()) {
        json["text"] = event.text;
    }
    return json;
}

OrderedJson GapJson(const Gap& gap) {
    return {{"from", gap.from},
            {"until", gap.until ? OrderedJson(*gap.until) : OrderedJson()},
            {"reason", gap.reason}};
}
