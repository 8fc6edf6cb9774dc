#include "tools/tsl/Dump.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <string>

#include "tools/base/LineBuffer.h"
#include "tools/base/Time.h"
#include "tools/bus/Interface.h"
#include "tools/bus/JsonFormat.h"
#include "tools/tsl/Inputs.h"

namespace {

std::string ClockText(double time) {
    const time_t seconds = static_cast<time_t>(time);
    tm local = {};
    localtime_r(&seconds, &local);
    char text[32];
    const size_t length = strftime(text, sizeof text, "%H:%M:%S", &local);
    snprintf(text + length, sizeof text - length, ".%03d",
             static_cast<int>((time - std::floor(time)) * 1000));
    return text;
}

Json JsonOf(const Display& display) {
    Json json;
    json["version"] = VersionName(display.version);
    if (display.version == TslVersion::V31) {
        json["display"] = display.index;
        for (int i = 0; i < Display::TALLY_COUNT; ++i) {
            json["tallies"].push_back((display.tallies >> i & Display::TALLY_1) != 0);
        }
    } else {
        json["screen"] = display.screen;
        json["index"] = display.index;
        json["left"] = ColourName(display.tallies >> Display::LEFT);
        json["text"] = ColourName(display.tallies >> Display::TEXT);
        json["right"] = ColourName(display.tallies >> Display::RIGHT);
    }
    json["brightness"] = display.brightness;
    json["label"] = display.label;
    return json;
}

void PrintJson(uint32_t host, const Json& fields) {
    Json json;
    json["time"] = TimeOfDay();
    json["host"] = HostText(host);
    json.update(fields);
    printf("%s\n", Dump(json).c_str());
}

void PrintText(uint32_t host, const std::string& text) {
    printf("%s %s %s\n", ClockText(TimeOfDay()).c_str(), HostText(host).c_str(), text.c_str());
}

}  // namespace

void DumpDisplays(const std::vector<TslListen>& listen, bool json, Signals& signals) {
    Inputs inputs(
        [json](const std::vector<Display>& displays, uint32_t host, TimePoint) {
            for (const Display& display : displays) {
                json ? PrintJson(host, JsonOf(display)) : PrintText(host, DescribeDisplay(display));
            }
        },
        [json](uint32_t host, const std::string& reason, const std::string& bytes) {
            if (json) {
                Json fields;
                fields["malformed"] = reason;
                fields["bytes"] = HexOf(bytes);
                PrintJson(host, fields);
            } else {
                PrintText(host,
                          "malformed: " + reason + (bytes.empty() ? "" : ": " + HexOf(bytes)));
            }
        },
        [](uint64_t count) {
            fprintf(stderr, "%llu datagrams were lost: they came too fast\n",
                    static_cast<unsigned long long>(count));
        },
        [](const std::string& text) { fprintf(stderr, "%s\n", Printable(text).c_str()); });
    inputs.Listen(listen);
    // cppcheck-suppress variableScope; its memory is used again
    std::vector<pollfd> fds;
    do {
        fds = {{signals.Get(), POLLIN, 0}};
        inputs.AddDescriptors(fds);
        poll(fds.data(), fds.size(), -1);
        inputs.Serve(fds);
        fflush(stdout);
    } while (!signals.Take());
}
