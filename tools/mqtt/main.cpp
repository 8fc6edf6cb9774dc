// orvex-mqtt: connects a bus to an MQTT broker.
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/CommandLine.h"
#include "tools/mqtt/Bridge.h"
#include "tools/mqtt/Config.h"
#include "tools/mqtt/Discovery.h"
#include "tools/mqtt/Explain.h"
#include "tools/mqtt/Topics.h"

namespace {

const char* const APP_NAME = "orvex-mqtt";

const int STATUS_TAKEN_OVER = 3;

const char* const DESCRIPTION =
    "Connects a bus to an MQTT broker: publishes its pins, sets pins on request, and lets pins of\n"
    "other sites set pins here.\n";

const char* const FOOTER =
    "FILE is described in orvex-mqtt.conf(5). SIGHUP reads it again.\n"
    "Exit status: 0 after SIGINT or SIGTERM; 1 if FILE is wrong, the bus can't be used or nothing\n"
    "can be explained; 2 for a usage error; 3 if another bridge has connected under this site's\n"
    "name.\n";

struct Options {
    std::string file;
    std::string pin;
    std::string metrics;
    bool explain = false;
    bool check = false;
    bool print_topics = false;
};

// Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CommandLine line(APP_NAME, DESCRIPTION, FOOTER);
    line.add_flag("--check", options.check, "Check FILE, print its errors and exit");
    line.add_flag("--print-topics", options.print_topics,
                  "Print the topics that FILE makes, and exit");
    const CLI::Option* const file =
        line.add_option("FILE", options.file, "The configuration")->type_name("")->required();
    CLI::Option* const pin =
        line.add_option("PIN", options.pin, "With --explain: the output")->type_name("");
    CLI::Option* const explain = line.add_flag(
        "--explain", options.explain,
        "Print why the output PIN, which a link in FILE sets, has its level, and exit");
    explain->needs(pin);
    pin->needs(explain);
    const CLI::Option* const metrics =
        line.add_option("--metrics", options.metrics,
                        "Write metrics for the textfile collector of node_exporter to this file")
            ->type_name("FILE");
    return line.Parse(argc, argv, {{file, Completion::File}, {metrics, Completion::File}});
}

void PrintTopics(const MqttConfig& config) {
    const Topics topics(config);
    for (const std::string& topic :
         {topics.Status(), topics.Bridge(), topics.Alive(), topics.Device("HOST")}) {
        printf("%s\n", topic.c_str());
    }
    if (config.standby) {
        printf("%s\n", topics.Standby().c_str());
    }
    for (const PinRef& pins : config.pins) {
        for (const uint32_t tag : pins.Tags()) {
            const std::string pin = PinText(tag);
            const std::string name = config.names.NameOf(tag);
            for (const std::string& text : {pin, name}) {
                if (text.empty()) {
                    continue;
                }
                printf("%s\n%s\n", topics.Pin(text).c_str(), topics.Level(text).c_str());
                if (!IsInput(tag)) {
                    printf("%s\n", topics.Set(text).c_str());
                }
            }
            printf("%s\n", topics.Event(pin).c_str());
        }
    }
    if (!config.discovery.empty()) {
        printf("%s\n", DiscoveryFilter(config).c_str());
    }
    for (const std::string& topic : Links(config, {}).Subscriptions()) {
        printf("%s\n", topic.c_str());
    }
}

int Main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
        return *status;
    }
    MqttConfig config = MqttConfig::Read(options.file);
    if (options.print_topics) {
        PrintTopics(config);
    }
    if (options.explain) {
        Explain(config, options.pin);
    }
    if (options.check || options.print_topics || options.explain) {
        return 0;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Signals signals({SIGHUP});
    Bridge bridge(config, options.metrics,
                  [](const std::string& text) { printf("%s\n", text.c_str()); });
    if (bridge.Run(signals) == Bridge::End::TakenOver) {
        fprintf(stderr, "%s: another bridge has connected for site %s: this one ends\n", APP_NAME,
                config.site.c_str());
        return STATUS_TAKEN_OVER;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
