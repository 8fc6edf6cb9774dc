#include "tools/completion/Completion.h"

#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

const char* const HIDDEN_OPTION = "--completion";

// Finds the command and whether the word before the cursor takes a value, then offers what fits.
// Bash splits words at colons and equals signs: pins are completed as a whole, and the part already
// typed is removed again.
const char* const BASH_BODY = R"BASH(
    local cur=${COMP_WORDS[COMP_CWORD]} command= kind= word i whole table=arguments names=
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        kind=${values["$command $word"]}
        if [[ -n $kind ]]; then
            [[ $kind == names ]] && names=${COMP_WORDS[i + 1]}
            ((++i < COMP_CWORD)) && kind=
        elif [[ -z $command && $word != -* && -n ${words["$word "]} ]]; then
            command=$word
        elif [[ $word != -* ]]; then
            table=more
        fi
    done
    if [[ -z $kind && $cur != -* ]]; then
        [[ $table == more ]] && kind=${more["$command "]} || kind=${arguments["$command "]}
    fi
    COMPREPLY=()
    case $kind in
    file | names)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    interface) mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net)" -- "$cur") ;;
    address | pin | level)
        whole=$cur
        [[ -z ${COMP_LINE-} ]] || whole=${COMP_LINE:0:COMP_POINT}
        whole=${whole##*[[:space:]]}
        mapfile -t COMPREPLY < <("${COMP_WORDS[0]}" --complete "$kind" "$whole" "$names" 2>/dev/null)
        [[ ${COMPREPLY[*]} != *[=:] ]] || compopt -o nospace
        [[ $whole == "$cur" ]] || COMPREPLY=("${COMPREPLY[@]#"${whole%"${whole##*[:=]}"}"}")
        ;;
    other) ;;
    *) mapfile -t COMPREPLY < <(compgen -W "${words["$command "]}" -- "$cur") ;;
    esac
)BASH";

// The same for zsh, which accepts pins as they are.
const char* const ZSH_PINS = R"ZSH(_orvex_pins() {
    local names=${(Q)all[${all[(i)(-n|--names)]}+1]}
    local -a offered=(${(f)"$(${(Q)program} --complete $1 $PREFIX "$names" 2>/dev/null)"})
    [[ $1 == level ]] && compadd -S '' -a offered || compadd -a offered
}
)ZSH";

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

// The user's name for the value: its type, or the name of a positional without one.
std::string ValueName(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return option.get_positional() && type.empty() ? option.get_name(true) : type;
}

std::string Kind(const CompletionKinds& kinds, const CLI::Option& option) {
    const auto kind = kinds.find(&option);
    switch (kind == kinds.end() ? Completion::None : kind->second) {
        case Completion::File:
            return "file";
        case Completion::Names:
            return "names";
        case Completion::Interface:
            return "interface";
        case Completion::Address:
            return "address";
        case Completion::Pin:
            return "pin";
        case Completion::PinLevel:
            return "level";
        default:
            return "other";
    }
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

std::string BashWords(const CompletionKinds&, const CLI::App& app, const std::string& command) {
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

std::string BashValues(const CompletionKinds& kinds, const CLI::App& app,
                       const std::string& command) {
    std::string text;
    for (const CLI::Option* option : Options(app, false)) {
        for (const std::string& name : HasValue(*option) ? Names(*option) : Words()) {
            text += BashEntry(command + " " + name, Kind(kinds, *option));
        }
    }
    return text;
}

std::string BashArguments(const CompletionKinds& kinds, const CLI::App& app,
                          const std::string& command) {
    const auto arguments = Options(app, true);
    return arguments.empty() ? "" : BashEntry(command + " ", Kind(kinds, *arguments.front()));
}

// Completes the words after the first argument.
std::string BashMore(const CompletionKinds& kinds, const CLI::App& app,
                     const std::string& command) {
    const auto arguments = Options(app, true);
    if (arguments.empty() || (arguments.size() == 1 && !Repeats(*arguments.front()))) {
        return BashEntry(command + " ", "other");
    }
    return BashEntry(command + " ", Kind(kinds, *arguments.back()));
}

template <typename Describe>
std::string BashTable(const char* name, const CompletionKinds& kinds, const CLI::App& app,
                      Describe describe) {
    std::string text = std::string("    local -A ") + name + "=(\n" + describe(kinds, app, "");
    for (const CLI::App* sub : Commands(app)) {
        text += describe(kinds, *sub, sub->get_name());
    }
    return text + "    )\n";
}

std::string Bash(const CLI::App& app, const CompletionKinds& kinds) {
    const std::string function = "_" + app.get_name();
    return "# Completion of " + app.get_name() + " for bash\n" + function + "() {\n" +
           BashTable("words", kinds, app, BashWords) + BashTable("values", kinds, app, BashValues) +
           BashTable("arguments", kinds, app, BashArguments) +
           BashTable("more", kinds, app, BashMore) + (BASH_BODY + 1) + "}\ncomplete -F " +
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

std::string ZshValue(const CompletionKinds& kinds, const CLI::Option& option) {
    const std::string kind = Kind(kinds, option);
    const char* const action = kind == "file"        ? "_files"
                               : kind == "names"     ? "_files"
                               : kind == "interface" ? "_net_interfaces"
                               : kind == "address"   ? " _orvex_pins address"
                               : kind == "pin"       ? " _orvex_pins pin"
                               : kind == "level"     ? " _orvex_pins level"
                                                     : " ";
    return ":" + ZshText(ValueName(option)) + ":" + action;
}

// Names of one option exclude each other, unless it may be repeated.
std::string ZshOption(const CompletionKinds& kinds, const CLI::Option& option) {
    const Words names = Names(option);
    const std::string prefix = Repeats(option)    ? "'*'"
                               : names.size() > 1 ? Quote("(" + Join(names, " ") + ")")
                                                  : "";
    const std::string rest = Quote("[" + ZshText(option.get_description()) + "]" +
                                   (HasValue(option) ? ZshValue(kinds, option) : ""));
    std::string text;
    for (const std::string& name : names) {
        text += " \\\n        " + prefix + name + rest;
    }
    return text;
}

std::string ZshArguments(const CompletionKinds& kinds, const CLI::App& app) {
    std::string text;
    for (const CLI::Option* option : Options(app, false)) {
        text += ZshOption(kinds, *option);
    }
    for (const CLI::Option* argument : Options(app, true)) {
        text +=
            " \\\n        " + Quote((Repeats(*argument) ? "*" : "") + ZshValue(kinds, *argument));
    }
    return text;
}

std::string ZshCommands(const CompletionKinds& kinds, const CLI::App& app) {
    std::string names;
    std::string cases;
    for (const CLI::App* sub : Commands(app)) {
        names += " " + sub->get_name() + "\\:" + Quote(sub->get_description());
        cases += sub->get_name() + ") _arguments -s" + ZshArguments(kinds, *sub) + " ;;\n";
    }
    if (names.empty()) {
        return "\n";
    }
    return " \\\n        " + Quote(":command:((" + names.substr(1) + "))") +
           " \\\n        '*::argument:->arguments'\n[[ $state == arguments ]] || return\n"
           "case $words[1] in\n" +
           cases + "esac\n";
}

std::string Zsh(const CLI::App& app, const CompletionKinds& kinds) {
    return "#compdef " + app.get_name() + "\n" + ZSH_PINS +
           "local program=$words[1] all=($words) curcontext=\"$curcontext\" state line\n_arguments "
           "-C -s" +
           ZshArguments(kinds, app) + ZshCommands(kinds, app);
}

}  // namespace

void AddCompletion(CLI::App& app, const CompletionKinds& kinds) {
    app.add_option_function<std::string>(
           HIDDEN_OPTION,
           [&app, kinds](const std::string& shell) {
               throw CLI::CallForVersion(shell == "zsh" ? Zsh(app, kinds) : Bash(app, kinds), 0);
           })
        ->check(CLI::IsMember({"bash", "zsh"}))
        ->group("");
}
