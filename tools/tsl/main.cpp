// orvex-tsl: tallies of switchers light outputs, and pins are tallies of multiviewers.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/Completion.h"
#include "tools/tsl/Config.h"
#include "tools/tsl/Dump.h"
#include "tools/tsl/Service.h"

namespace {

const char* const APP_NAME = "orvex-tsl";
const char* const DEFAULT_FILE = "/etc/orvex/tsl.conf";

const int STATUS_WRONG = 1;
const int STATUS_USAGE = 2;

const char* const DESCRIPTION =
    "Lights outputs on the bus as the tallies of switchers say, and shows pins as tallies on\n"
    "multiviewers. Speaks TSL UMD 3.1 and 5.0.\n";

const char* const FOOTER =
    "FILE is described in orvex-tsl.conf(5).\n"
    "SIGHUP reads it again.\n"
    "Exit status: 0 after SIGINT or SIGTERM; 1 if FILE is wrong or an address can't be used; 2 "
    "for\n"
    "a usage error.\n";

struct Options {
    std::string file = DEFAULT_FILE;
    bool check = false;
    bool dump = false;
    bool json = false;
    std::vector<std::string> listen;
};

// Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CLI::App app(DESCRIPTION, APP_NAME);
    app.footer(FOOTER);
    app.set_version_flag("--version", std::string(APP_NAME) + " " + ORVEX_VERSION);
    app.add_flag("--check", options.check, "Check FILE, print its errors and exit");
    CLI::Option* const dump =
        app.add_flag("--dump", options.dump,
                     "Print what switchers send to the addresses in FILE, and set nothing");
    app.add_flag("--json", options.json, "With --dump: one JSON object per line")->needs(dump);
    app.add_option("--listen", options.listen,
                   "With --dump: listen there instead, such as 'udp 0.0.0.0:8900 v5'")
        ->type_name("PLACE")
        ->needs(dump);
    const CLI::Option* const file =
        app.add_option("FILE", options.file, "Configuration")->type_name("")->capture_default_str();
    AddCompletion(app, {{file, Completion::File}});
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : STATUS_USAGE;
    }
    return std::nullopt;
}

// Where to listen instead of the file's addresses. Throws std::invalid_argument.
std::vector<TslListen> PlacesOf(const Options& options) {
    std::vector<TslListen> places;
    for (const std::string& text : options.listen) {
        places.push_back(ParseTslListen(text));
    }
    return places;
}

int Run(const Options& options) {
    if (options.dump && !options.listen.empty()) {
        Signals signals;
        DumpDisplays(PlacesOf(options), options.json, signals);
        return 0;
    }
    const TslConfig config = TslConfig::Read(options.file);
    if (options.check) {
        return 0;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (options.dump) {
        Signals signals;
        DumpDisplays(config.listen, options.json, signals);
        return 0;
    }
    Signals signals({SIGHUP});
    Service(config).Run(signals);
    return 0;
}

int Main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
        return *status;
    }
    try {
        return Run(options);
    } catch (const ConfigError& error) {
        std::istringstream lines(error.what());
        for (std::string line; std::getline(lines, line);) {
            fprintf(stderr, "%s: %s\n", APP_NAME, line.c_str());
        }
        return STATUS_WRONG;
    } catch (const std::invalid_argument& error) {
        fprintf(stderr, "%s: --listen: %s\n", APP_NAME, error.what());
        return STATUS_USAGE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
