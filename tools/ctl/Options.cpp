#include "tools/ctl/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "tools/completion/Completion.h"
#include "tools/ctl/Complete.h"
#include "tools/ctl/ExitStatus.h"

namespace {

const char* const DESCRIPTION =
    "Lists, reads, sets and watches pins on the bus, and finds what is wrong.\n";

const char* const NAMES =
    "ADDRESS is two numbers, 1:2, or one, 258, which is 1 * 256 + 2. They may be\n"
    "hexadecimal (0x10) or octal (010). PIN is in1 to in5, out1 to out5, or a circuit,\n"
    "c0 to c255. So 1:2:out1, 258:out1, 1:2:c8 and 1:2:8 are one pin; 258:8 is an\n"
    "address. A name from the file of names stands for its address or pin.\n";

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

std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

// The names of the commands that have the option; of all commands for an empty one.
std::string CommandsWith(const std::string& option) {
    std::vector<std::string> names;
    for (const CommandSpec& command : COMMANDS) {
        const bool has = std::any_of(OPTIONS.begin(), OPTIONS.end(), [&](const OptionSpec& row) {
            return row.commands != nullptr && Has(row.commands, command.name) &&
                   ("," + std::string(row.names) + ",").find("," + option + ",") !=
                       std::string::npos;
        });
        if (has || option.empty()) {
            names.emplace_back(command.name);
        }
    }
    return Join(names);
}

// How many letters must be inserted, removed or replaced to make one word the other.
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i);
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

// The command that the word begins, or is a slip of the finger away from; else null.
const char* MeantCommand(const std::string& word) {
    const char* meant = nullptr;
    size_t least = std::min<size_t>(3, word.size());
    for (const CommandSpec& command : COMMANDS) {
        const std::string name = command.name;
        const bool is_near = name.rfind(word, 0) == 0 ||
                             (word.size() == name.size() &&
                              std::is_permutation(word.begin(), word.end(), name.begin()));
        const size_t distance = is_near ? 1 : Distance(word, name);
        if (distance < least) {
            least = distance;
            meant = command.name;
        }
    }
    return meant;
}

template <typename Row>
void Set(const Row& row, const char* name, Options& options, const std::string& text) {
    try {
        row.set(options, text);
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError(name, error.what());
    }
}

// Shows an argument as its type: CLI11 does not accept ':' in a name.
class ArgumentFormatter : public CLI::Formatter {
public:
    std::string make_option_usage(const CLI::Option* option) const override {
        const std::string name =
            option->get_type_name() + (option->get_expected_max() > 1 ? "..." : "");
        return option->get_required() ? name : "[" + name + "]";
    }

private:
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

// The parser of a command line.
class Parser {
public:
    explicit Parser(Options& options);

    const CommandSpec* Parse(int argc, char** argv, int& status);

private:
    // A word for an argument. It is read once all options are known, including those after it: it
    // may be a name in a file that an option gives.
    struct Word {
        const ArgumentSpec* row;
        std::string text;
    };

    void AddOption(CLI::App& app, const OptionSpec& row);
    void AddArgument(CLI::App& app, const ArgumentSpec& row);
    void AddCommand(const CommandSpec& command);
    void TakeWords();
    void TakeCommand(int argc, char** argv);
    std::string Problem(const CLI::ParseError& error) const;
    int Refuse(const CLI::ParseError& error);

    Options& m_options;
    const std::shared_ptr<ArgumentFormatter> m_formatter = std::make_shared<ArgumentFormatter>();
    CLI::App m_app;
    CompletionKinds m_kinds;
    std::vector<Word> m_words;
};

// Options of all commands are accepted before and after the command.
Parser::Parser(Options& options) : m_options(options), m_app(DESCRIPTION, APP_NAME) {
    m_app.footer(Footer());
    m_app.set_version_flag("--version", std::string(APP_NAME) + " " + ORVEX_VERSION);
    m_app.require_subcommand(1);
    m_formatter->column_width(28);
    m_app.formatter(m_formatter);
    for (const OptionSpec& option : OPTIONS) {
        if (option.commands == nullptr) {
            AddOption(m_app, option);
        }
    }
    for (const CommandSpec& command : COMMANDS) {
        AddCommand(command);
    }
    AddCompletion(m_app, m_kinds);
}

void Parser::AddOption(CLI::App& app, const OptionSpec& row) {
    if (row.value == nullptr) {
        app.add_flag_callback(
            row.names, [&] { Set(row, row.names, m_options, ""); }, row.help);
        return;
    }
    CLI::Option* const option =
        app.add_option_function<std::string>(
               row.names, [&](const std::string& text) { Set(row, row.names, m_options, text); },
               row.help)
            ->type_name(row.value);
    m_kinds[option] = row.completion;
}

void Parser::AddArgument(CLI::App& app, const ArgumentSpec& row) {
    const std::string name(row.name, std::strcspn(row.name, "[:="));
    const auto take = [&](const std::string& text) { m_words.push_back({&row, text}); };
    CLI::Option* const argument = row.repeats
                                      ? app.add_option_function<std::vector<std::string>>(
                                               name,
                                               [take](const std::vector<std::string>& texts) {
                                                   std::for_each(texts.begin(), texts.end(), take);
                                               },
                                               row.help)
                                            ->expected(1, CLI::detail::expected_max_vector_size)
                                      : app.add_option_function<std::string>(name, take, row.help);
    argument->type_name(row.name)->required(row.required);
    m_kinds[argument] = row.completion;
}

void Parser::AddCommand(const CommandSpec& command) {
    CLI::App& sub = *m_app.add_subcommand(command.name, command.summary);
    sub.footer(std::string(command.details) + "\n\n" + Footer());
    for (const ArgumentSpec& argument : command.arguments) {
        AddArgument(sub, argument);
    }
    for (const OptionSpec& option : OPTIONS) {
        if (option.commands == nullptr || Has(option.commands, command.name)) {
            AddOption(sub, option);
        }
    }
}

void Parser::TakeWords() {
    m_options.names = Names::Load(m_options.names_file);
    for (const Word& word : m_words) {
        Set(*word.row, word.row->name, m_options, word.text);
    }
}

// The words after "--" as they are: the parser would split one in brackets.
void Parser::TakeCommand(int argc, char** argv) {
    char** const mark = std::find(argv, argv + argc, std::string("--"));
    if (!m_options.runner.command.empty() && mark != argv + argc) {
        m_options.runner.command.assign(mark + 1, argv + argc);
    }
}

// What is wrong, with a hint where one is known.
std::string Parser::Problem(const CLI::ParseError& error) const {
    const std::vector<std::string> unknown = m_app.remaining(true);
    const std::string word = unknown.empty() ? "" : unknown[0].substr(0, unknown[0].find('='));
    const auto commands = m_app.get_subcommands();
    if (commands.empty() && word.empty()) {
        return "no command; commands are " + CommandsWith("");
    }
    if (commands.empty() && word[0] != '-') {
        const char* const meant = MeantCommand(word);
        return "unknown command " + word +
               (meant != nullptr ? "; did you mean " + std::string(meant) + "?"
                                 : "; commands are " + CommandsWith(""));
    }
    if (!commands.empty() && !word.empty() && !CommandsWith(word).empty()) {
        return commands[0]->get_name() + " has no " + word +
               "; these have it: " + CommandsWith(word);
    }
    return error.what();
}

// Prints what is wrong and the usage, or what was requested; returns the exit status.
int Parser::Refuse(const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {  // help or the version
        m_app.exit(error);
        return STATUS_DONE;
    }
    const auto commands = m_app.get_subcommands();
    const CLI::App& app = commands.empty() ? m_app : *commands[0];
    const std::string name = APP_NAME + (commands.empty() ? "" : " " + app.get_name());
    m_options.console.Error(Problem(error));
    fprintf(stderr, "%sRun \"%s --help\" for more.\n", m_formatter->make_usage(&app, name).c_str(),
            name.c_str());
    return STATUS_USAGE;
}

const CommandSpec* Parser::Parse(int argc, char** argv, int& status) {
    try {
        m_app.parse(argc, argv);
        TakeWords();
        TakeCommand(argc, argv);
    } catch (const CLI::ParseError& error) {
        status = Refuse(error);
        return nullptr;
    } catch (const NamesError& error) {
        m_options.console.Error(error.what());
        status = STATUS_FAILED;
        return nullptr;
    }
    const auto command = std::find_if(
        COMMANDS.begin(), COMMANDS.end(),
        [this](const CommandSpec& candidate) { return m_app.got_subcommand(candidate.name); });
    return &*command;
}

// For the shells: orvexctl --complete KIND WORD [NAMES]
bool Complete(int argc, char** argv) {
    if (argc < 4 || argc > 5 || std::string(argv[1]) != "--complete") {
        return false;
    }
    try {
        for (const std::string& word :
             CompletePins(argv[3], argv[2], Names::Load(argc == 5 ? argv[4] : ""))) {
            puts(word.c_str());
        }
    } catch (const NamesError&) {
        // A shell offers nothing then.
    }
    return true;
}

}  // namespace

const CommandSpec* ParseCommandLine(int argc, char** argv, Options& options, int& status) {
    if (Complete(argc, argv)) {
        status = STATUS_DONE;
        return nullptr;
    }
    return Parser(options).Parse(argc, argv, status);
}
