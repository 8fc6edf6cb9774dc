// Scripts that complete a tool's command line in a shell, made from the options that it parses.
#pragma once

#include <CLI/CLI.hpp>

// Adds the hidden option --completion, which prints the script of a shell, bash or zsh, and ends
// the program. Call it when everything else has been added.
void AddCompletion(CLI::App& app);
