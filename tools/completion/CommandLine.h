// The command line of a program.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>

#include "tools/completion/Completion.h"

// The parser of the program's options, with --version and --help. Add options and arguments to it,
// then call Parse().
class CommandLine : public CLI::App {
public:
    // The text ends what --help prints.
    CommandLine(const char* name, const char* description, const char* text);

    // Adds the hidden option --completion and reads the command line. Returns an exit status if the
    // program should end: it has printed what was asked for, or what is wrong.
    std::optional<int> Parse(int argc, char** argv, const CompletionKinds& kinds);
};

// Refuses a value for which the function throws std::invalid_argument, with its reason.
CLI::Validator Parses(const std::function<void(const std::string&)>& parse);
