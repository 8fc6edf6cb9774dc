// Shell scripts that complete a tool's command line, made from the options that it parses.
#pragma once

#include <CLI/CLI.hpp>
#include <map>

#include "tools/completion/Kind.h"

// Kinds of the values of options and arguments; None for those not listed.
using CompletionKinds = std::map<const CLI::Option*, Completion>;

// Adds the hidden option --completion, which prints the script for a shell, bash or zsh, and ends
// the program. Call it after everything else has been added.
void AddCompletion(CLI::App& app, const CompletionKinds& kinds);
