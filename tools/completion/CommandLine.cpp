#include "tools/completion/CommandLine.h"

#include <stdexcept>

#include "tools/base/RunMain.h"

CommandLine::CommandLine(const char* name, const char* description, const char* text)
    : App(description, name) {
    footer(text);
    set_version_flag("--version", std::string(name) + " " + ORVEX_VERSION);
}

std::optional<int> CommandLine::Parse(int argc, char** argv, const CompletionKinds& kinds) {
    AddCompletion(*this, kinds);
    try {
        parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return exit(error) == 0 ? 0 : STATUS_USAGE;
    }
    return std::nullopt;
}

CLI::Validator Parses(const std::function<void(const std::string&)>& parse) {
    return CLI::Validator(
        [parse](std::string& text) {
            try {
                parse(text);
                return std::string();
            } catch (const std::invalid_argument& error) {
                return std::string(error.what());
            }
        },
        "");
}
