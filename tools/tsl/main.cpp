// orvex-tsl: tallies of switchers light outputs, and pins are tallies of multiviewers.
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/CommandLine.h"
#include "tools/tsl/Config.h"
#include "tools/tsl/Dump.h"
#include "tools/tsl/Service.h"

namespace {

const char* const APP_NAME = "orvex-tsl";
const char* const DEFAULT_FILE = "/etc/orvex/tsl.conf";

const char* const DESCRIPTION =
    "Lights outputs on the bus as the tallies of switchers say, and shows pins as tallies on\n"
    "multiviewers. Speaks TSL UMD 3.1 and 5.0.\n";

const char* const FOOTER =
    "FILE is described in orvex-tsl.conf(5).\n"
    "SIGHUP reads it again.\n"
    "Exit status: 0 after SIGINT or SIGTERM; 1 if FILE is wrong or an address can't be used;\n"
    "2 for a usage error.\n";

struct Options {
    std::string file = DEFAULT_FILE;
    bool check = false;
    bool dump = false;
    bool json = false;
    std::vector<std::string> listen;
};

// Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CommandLine line(APP_NAME, DESCRIPTION, FOOTER);
    line.add_flag("--check", options.check, "Check FILE, print its errors and exit");
    CLI::Option* const dump =
        line.add_flag("--dump", options.dump,
                      "Print what switchers send to the addresses in FILE, and set nothing");
    line.add_flag("--json", options.json, "With --dump: one JSON object per line")->needs(dump);
    line.add_option("--listen", options.listen,
                    "With --dump: listen there instead, such as 'udp 0.0.0.0:8900 v5'")
        ->type_name("PLACE")
        ->check(Parses(ParseTslListen))
        ->needs(dump);
    const CLI::Option* const file = line.add_option("FILE", options.file, "Configuration")
                                        ->type_name("")
                                        ->capture_default_str();
    return line.Parse(argc, argv, {{file, Completion::File}});
}

int Main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
        return *status;
    }
    std::vector<TslListen> places;
    for (const std::string& text : options.listen) {
        places.push_back(ParseTslListen(text));
    }
    TslConfig config;
    if (places.empty()) {
        config = TslConfig::Read(options.file);
        places = config.listen;
    }
    if (options.check) {
        return 0;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Signals signals({SIGHUP});
    if (options.dump) {
        DumpDisplays(places, options.json, signals);
    } else {
        Service(config).Run(signals);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
