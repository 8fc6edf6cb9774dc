// orvex-gpio: a control server whose pins are lines of GPIO chips.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/Completion.h"
#include "tools/gpio/Listing.h"
#include "tools/gpio/Service.h"

namespace {

const char* const APP_NAME = "orvex-gpio";
const char* const DEFAULT_FILE = "/etc/orvex/gpio.conf";

const int STATUS_WRONG = 1;
const int STATUS_USAGE = 2;

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
    CLI::App app(DESCRIPTION, APP_NAME);
    app.footer(FOOTER);
    app.set_version_flag("--version", std::string(APP_NAME) + " " + ORVEX_VERSION);
    app.add_flag("--check", options.check,
                 "Check FILE and the chips without driving anything, print errors and exit");
    const CLI::Option* const lines = app.add_flag(
        "--lines", options.lines, "List chips and lines, who uses them and which pins they are");
    app.add_flag("--json", options.json, "With --lines: one JSON object per line")
        ->needs(const_cast<CLI::Option*>(lines));
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

void PrintErrors(const std::string& errors) {
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
        fprintf(stderr, "%s: %s\n", APP_NAME, line.c_str());
    }
}

int List(const Options& options) {
    GpioConfig config;
    int status = 0;
    try {
        // Before there is a file, the list says what to write into it.
        if (options.file != DEFAULT_FILE || std::ifstream(DEFAULT_FILE)) {
            config = GpioConfig::Read(options.file);
        }
    } catch (const ConfigError& error) {
        PrintErrors(error.what());
        status = STATUS_WRONG;
    }
    const std::vector<ChipInfo> chips = FindChips();
    for (const ChipInfo& chip : chips) {
        if (!chip.problem.empty()) {
            PrintErrors(chip.path + ": " + chip.problem);
            status = STATUS_WRONG;
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
    try {
        const GpioConfig config = GpioConfig::Read(options.file);
        const std::vector<ChipInfo> chips = FindChips();
        if (options.check) {
            const std::vector<std::string> problems = FindProblems(config, chips);
            for (const std::string& problem : problems) {
                PrintErrors(problem);
            }
            return problems.empty() ? 0 : STATUS_WRONG;
        }
        RefuseContradictions(config, chips);
        setvbuf(stdout, nullptr, _IOLBF, 0);
        Signals signals({SIGHUP});
        Service(config).Run(signals);
        return 0;
    } catch (const ConfigError& error) {
        PrintErrors(error.what());
        return STATUS_WRONG;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
