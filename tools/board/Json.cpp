#include "tools/board/Json.h"

#include "tools/base/Time.h"
#include "tools/bus/Escape.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinName.h"
#include "tools/bus/StateJson.h"
#include "tools/tqrd/ChannelTable.h"
#include "tools/tqrd/SourceText.h"

namespace {

Json LevelJson(const std::optional<bool>& low) {
    return low ? Json(*low ? "L" : "H") : Json();
}

}  // namespace

Json DeviceJson(const std::string& host, const PinFollower::Device& device) {
    Json json = {{"host", host},
                 {"first", WholeMilliseconds(device.first)},
                 {"heard", WholeMilliseconds(device.last)},
                 {"missing", device.is_silent},
                 {"since", WholeMilliseconds(device.since)},
                 {"messages", device.messages},
                 {"answers", device.answers},
                 {"missed", device.missed},
                 {"answer_ms", device.answer_time * 1000},
                 {"answer_times", device.answer_times.Counts()},
                 {"addresses", Json::array()}};
    for (const uint32_t address : device.addresses) {
        json["addresses"].push_back(AddressText(address));
    }
    return json;
}

Json ChannelJson(int number, const ChannelInfo& channel) {
    Json json = {{"channel", number}, {"configured", channel.is_configured}};
    if (channel.is_configured) {
        if (channel.config.proto == KIND_BUS) {
            json["address"] = AddressText(channel.config.ach);
        }
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
        case EventKind::DeviceForgotten:
            return "device-forgotten";
        case EventKind::GapBegin:
            return "gap-begin";
        case EventKind::GapEnd:
            return "gap-end";
        case EventKind::ClockSetBack:
            return "clock-set-back";
    }
    return "unknown";
}

Json EventJson(const Event& event, const Names& names) {
    Json json = {{"id", event.id}, {"time", event.time}, {"kind", KindText(event.kind)}};
    if (event.tag) {
        json["pin"] = PinText(*event.tag);
        PutBoardNames(json, *event.tag, names);
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

Json GapJson(const Gap& gap) {
    return {{"from", gap.from},
            {"until", gap.until ? Json(*gap.until) : Json()},
            {"reason", gap.reason}};
}
