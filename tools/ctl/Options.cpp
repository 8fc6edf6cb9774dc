#include "tools/ctl/Options.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tools/completion/Completion.h"
#include "tools/ctl/ExitStatus.h"

namespace {

const char* const DESCRIPTION =
    "Reads, sets and watches pins on the multicast bus, and records and sends its messages.\n";

const char* const NAMES =
    "ADDRESS is a number or a:b, which is a * 256 + b, in decimal, hexadecimal (0x10) or octal\n"
    "(010). PIN is in1 to in5, out1 to out5, or a circuit: c0 to c255. Behind an address of two\n"
    "numbers the circuit needs no c: 258:out1, 1:2:out1, 0x102:c8 and 1:2:8 are one pin, but "
    "258:8\n"
    "is an address.\n";

std::string Footer() {
    std::string text = std::string(NAMES) + "\nExit status:\n";
    for (const StatusSpec& status : STATUSES) {
        text += "  " + std::to_string(status.status) + "  " + status.meaning + "\n";
    }
    return text;
}

bool Has(const char* commands, const char* name) {
    return (" " + std::string(commands) + " ").find(" " + std::string(name) + " ") !=
           std::string::npos;
}

template <typename Row>
void Set(const Row& row, const char* name, Options& options, const std::string& text) {
    try {
        row.set(options, text);
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError(name, error.what());
    }
}

void AddOption(CLI::App& app, const OptionSpec& row, Options& options) {
    if (row.value == nullptr) {
        app.add_flag_callback(
            row.names, [&] { Set(row, row.names, options, ""); }, row.help);
        return;
    }
    app.add_option_function<std::string>(
           row.names, [&](const std::string& text) { Set(row, row.names, options, text); },
           row.help)
        ->type_name(row.value);
}

// Shows an argument as its type: CLI11 takes no ':' in a name.
class ArgumentFormatter : public CLI::Formatter {
    std::string make_option_name(const CLI::Option* option, bool positional) const override {
        return positional ? option->get_type_name()
                          : CLI::Formatter::make_option_name(option, positional);
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        if (!option->get_positional()) {
            return CLI::Formatter::make_option_opts(option);
        }
        return std::string(option->get_expected_max() > 1 ? " ..." : "") +
               (option->get_required() ? " REQUIRED" : "");
    }
};

// A word for an argument. It is read when all options are known, those behind it too: it may be a
// name in a file that an option names.
struct Word {
    const ArgumentSpec* row;
    std::string text;
};

void AddArgument(CLI::App& app, const ArgumentSpec& row, std::vector<Word>& words) {
    const std::string name(row.name, std::strcspn(row.name, "[:="));
    app.add_option_function<std::vector<std::string>>(
           name,
           [&](const std::vector<std::string>& texts) {
               for (const std::string& text : texts) {
                   words.push_back({&row, text});
               }
           },
           row.help)
        ->type_name(row.name)
        ->required(row.required)
        ->expected(1, row.repeats ? CLI::detail::expected_max_vector_size : 1);
}

// Options of all commands may stand before the command as well as behind it.
void AddCommand(CLI::App& app, const CommandSpec& command, Options& options,
                std::vector<Word>& words) {
    CLI::App& sub = *app.add_subcommand(command.name, command.summary);
    sub.footer(std::string(command.details) + "\n\n" + Footer());
    for (const ArgumentSpec& argument : command.arguments) {
        AddArgument(sub, argument, words);
    }
    for (const OptionSpec& option : OPTIONS) {
        if (option.commands == nullptr || Has(option.commands, command.name)) {
            AddOption(sub, option, options);
        }
    }
}

}  // namespace

const CommandSpec* ParseCommandLine(int argc, char** argv, Options& options, int& status) {
    std::vector<Word> words;
    CLI::App app(DESCRIPTION, APP_NAME);
    app.footer(Footer());
    app.set_version_flag("--version", std::string(APP_NAME) + " " + ORVEX_VERSION);
    app.require_subcommand(1);
    app.formatter(std::make_shared<ArgumentFormatter>());
    for (const OptionSpec& option : OPTIONS) {
        if (option.commands == nullptr) {
            AddOption(app, option, options);
        }
    }
    for (const CommandSpec& command : COMMANDS) {
        AddCommand(app, command, options, words);
    }
    AddCompletion(app);
    try {
        app.parse(argc, argv);
        options.names = Names::Load(options.names_file);
        for (const Word& word : words) {
            Set(*word.row, word.row->name, options, word.text);
        }
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? STATUS_DONE : STATUS_USAGE;
        return nullptr;
    } catch (const NamesError& error) {
        options.console.Error(error.what());
        status = STATUS_FAILED;
        return nullptr;
    }
    for (const CommandSpec& command : COMMANDS) {
        if (app.got_subcommand(command.name)) {
            return &command;
        }
    }
    status = STATUS_USAGE;
    return nullptr;
}
