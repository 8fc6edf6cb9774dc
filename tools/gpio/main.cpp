// orvex-gpio: a control server whose pins are lines of GPIO chips.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <optional>
#include <string>

#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/CommandLine.h"
#include "tools/gpio/Listing.h"
#include "tools/gpio/Service.h"

namespace {

const char* const APP_NAME = "orvex-gpio";
const char* const DEFAULT_FILE = "/etc/orvex/gpio.conf";

const char* const DESCRIPTION =
    "Serves GPIO lines of this board as pins: as the control server of orvex, or as a remote GPIO\n"
    "server for other devices.\n";

const char* const FOOTER =
    "FILE is described in orvex-gpio.conf(5).\n"
    "SIGHUP reads it again.\n"
    "Exit status: 0 after SIGINT or SIGTERM; 1 if FILE is wrong or an address can't be used, with\n"
    "--check also if a pin can't have its line; 2 for a usage error.\n";

struct Options {
    std::string file = DEFAULT_FILE;
    bool check = false;
    bool lines = false;
    bool json = false;
};

// Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CommandLine line(APP_NAME, DESCRIPTION, FOOTER);
    line.add_flag("--check", options.check,
                  "Check FILE and the chips without driving anything, print errors and exit");
    CLI::Option* const lines = line.add_flag(
        "--lines", options.lines, "List chips and lines, who uses them and which pins they are");
    line.add_flag("--json", options.json, "With --lines: one JSON object per line")->needs(lines);
    const CLI::Option* const file = line.add_option("FILE", options.file, "Configuration")
                                        ->type_name("")
                                        ->capture_default_str();
    return line.Parse(argc, argv, {{file, Completion::File}});
}

int List(const Options& options) {
    GpioConfig config;
    int status = 0;
    try {
        // Before there is a file, the list says what to write into it.
        if (options.file != DEFAULT_FILE || access(DEFAULT_FILE, R_OK) == 0) {
            config = GpioConfig::Read(options.file);
        }
    } catch (const ConfigError& error) {
        PrintError(APP_NAME, error.what());
        status = STATUS_FAILED;
    }
    const std::vector<ChipInfo> chips = FindChips();
    for (const ChipInfo& chip : chips) {
        if (!chip.problem.empty()) {
            PrintError(APP_NAME, chip.path + ": " + chip.problem);
            status = STATUS_FAILED;
        }
    }
    PrintLines(config, chips, options.json);
    return status;
}

int Main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
        return *status;
    }
    if (options.lines) {
        return List(options);
    }
    const GpioConfig config = GpioConfig::Read(options.file);
    const std::vector<ChipInfo> chips = FindChips();
    if (options.check) {
        const std::vector<std::string> problems = FindProblems(config, chips);
        for (const std::string& problem : problems) {
            PrintError(APP_NAME, problem);
        }
        return problems.empty() ? 0 : STATUS_FAILED;
    }
    RefuseContradictions(config, chips);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Signals signals({SIGHUP});
    Service(config).Run(signals);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
