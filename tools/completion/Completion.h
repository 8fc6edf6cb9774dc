// Scripts that complete a tool's command line in a shell, made from the options that it parses.
#pragma once

#include <CLI/CLI.hpp>
#include <map>

#include "tools/completion/Kind.h"

// What stands for the values of options and for arguments; None for those that are left out.
using CompletionKinds = std::map<const CLI::Option*, Completion>;

// Adds the hidden option --completion, which prints the script of a shell, bash or zsh, and ends
// the program. Call it when everything else has been added.
void AddCompletion(CLI::App& app, const CompletionKinds& kinds);
