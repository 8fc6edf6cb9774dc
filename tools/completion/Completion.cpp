#include "tools/completion/Completion.h"

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

const char* const HIDDEN_OPTION = "--completion";

// Finds the command and whether the word before the cursor wants a value, then offers what fits.
const char* const BASH_BODY = R"BASH(
    local cur=${COMP_WORDS[COMP_CWORD]} command= kind= word i
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        kind=${values["$command $word"]}
        if [[ -n $kind ]]; then
            ((++i < COMP_CWORD)) && kind=
        elif [[ -z $command && $word != -* && -n ${words["$word "]} ]]; then
            command=$word
        fi
    done
    [[ -n $kind || $cur == -* ]] || kind=${arguments["$command "]}
    COMPREPLY=()
    case $kind in
    file)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net)" -- "$cur") ;;
    other) ;;
    *) mapfile -t COMPREPLY < <(compgen -W "${words["$command "]}" -- "$cur") ;;
    esac
)BASH";

std::vector<const CLI::App*> Commands(const CLI::App& app) {
    return app.get_subcommands([](const CLI::App*) { return true; });
}

std::vector<const CLI::Option*> Options(const CLI::App& app, bool positional) {
    return app.get_options([positional](const CLI::Option* option) {
        return option->get_positional() == positional && !option->get_group().empty();
    });
}

Words Names(const CLI::Option& option) {
    Words names;
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    return names;
}

bool HasValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

bool Repeats(const CLI::Option& option) {
    return option.get_items_expected_max() > 1;
}

// What the user calls the value: its type, or the name of a positional that has none.
std::string ValueName(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return option.get_positional() && type.empty() ? option.get_name(true) : type;
}

std::string Kind(const CLI::Option& option) {
    const std::string name = ValueName(option);
    return name == "FILE" ? "file" : name.rfind("NAME", 0) == 0 ? "interface" : "other";
}

std::string Join(const Words& words, const char* separator) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : separator) + word;
    }
    return text;
}

std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string BashEntry(const std::string& key, const std::string& value) {
    return "        [" + Quote(key) + "]=" + Quote(value) + "\n";
}

std::string BashWords(const CLI::App& app, const std::string& command) {
    Words words;
    for (const CLI::App* sub : Commands(app)) {
        words.push_back(sub->get_name());
    }
    for (const CLI::Option* option : Options(app, false)) {
        const Words names = Names(*option);
        words.insert(words.end(), names.begin(), names.end());
    }
    return BashEntry(command + " ", Join(words, " "));
}

std::string BashValues(const CLI::App& app, const std::string& command) {
    std::string text;
    for (const CLI::Option* option : Options(app, false)) {
        for (const std::string& name : HasValue(*option) ? Names(*option) : Words()) {
            text += BashEntry(command + " " + name, Kind(*option));
        }
    }
    return text;
}

// The first argument alone: the others of a command are not files.
std::string BashArguments(const CLI::App& app, const std::string& command) {
    const auto arguments = Options(app, true);
    return arguments.empty() ? "" : BashEntry(command + " ", Kind(*arguments.front()));
}

template <typename Describe>
std::string BashTable(const char* name, const CLI::App& app, Describe describe) {
    std::string text = std::string("    local -A ") + name + "=(\n" + describe(app, "");
    for (const CLI::App* sub : Commands(app)) {
        text += describe(*sub, sub->get_name());
    }
    return text + "    )\n";
}

std::string Bash(const CLI::App& app) {
    const std::string function = "_" + app.get_name();
    return "# Completion of " + app.get_name() + " for bash\n" + function + "() {\n" +
           BashTable("words", app, BashWords) + BashTable("values", app, BashValues) +
           BashTable("arguments", app, BashArguments) + (BASH_BODY + 1) + "}\ncomplete -F " +
           function + " " + app.get_name() + "\n";
}

// A text inside an argument of zsh's _arguments.
std::string ZshText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == ':' || c == '[' || c == ']' || c == '\\') {
            escaped += '\\';
        }
        escaped += c;
    }
    return escaped;
}

std::string ZshValue(const CLI::Option& option) {
    const std::string kind = Kind(option);
    const char* const action = kind == "file"        ? "_files"
                               : kind == "interface" ? "_net_interfaces"
                                                     : " ";
    return ":" + ZshText(ValueName(option)) + ":" + action;
}

// Names of one option exclude each other, unless it may be given again.
std::string ZshOption(const CLI::Option& option) {
    const Words names = Names(option);
    const std::string prefix = Repeats(option)    ? "'*'"
                               : names.size() > 1 ? Quote("(" + Join(names, " ") + ")")
                                                  : "";
    const std::string rest = Quote("[" + ZshText(option.get_description()) + "]" +
                                   (HasValue(option) ? ZshValue(option) : ""));
    std::string text;
    for (const std::string& name : names) {
        text += " \\\n        " + prefix + name + rest;
    }
    return text;
}

std::string ZshArguments(const CLI::App& app) {
    std::string text;
    for (const CLI::Option* option : Options(app, false)) {
        text += ZshOption(*option);
    }
    for (const CLI::Option* argument : Options(app, true)) {
        text += " \\\n        " + Quote((Repeats(*argument) ? "*" : "") + ZshValue(*argument));
    }
    return text;
}

std::string ZshCommands(const CLI::App& app) {
    std::string names;
    std::string cases;
    for (const CLI::App* sub : Commands(app)) {
        names += " " + sub->get_name() + "\\:" + Quote(sub->get_description());
        cases += sub->get_name() + ") _arguments -s" + ZshArguments(*sub) + " ;;\n";
    }
    if (names.empty()) {
        return "\n";
    }
    return " \\\n        " + Quote(":command:((" + names.substr(1) + "))") +
           " \\\n        '*::argument:->arguments'\n[[ $state == arguments ]] || return\n"
           "case $words[1] in\n" +
           cases + "esac\n";
}

std::string Zsh(const CLI::App& app) {
    return "#compdef " + app.get_name() + "\n" +
           "local curcontext=\"$curcontext\" state line\n_arguments -C -s" + ZshArguments(app) +
           ZshCommands(app);
}

}  // namespace

void AddCompletion(CLI::App& app) {
    app.add_option_function<std::string>(HIDDEN_OPTION,
                                         [&app](const std::string& shell) {
                                             throw CLI::CallForVersion(
                                                 shell == "zsh" ? Zsh(app) : Bash(app), 0);
                                         })
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->group("");
}
