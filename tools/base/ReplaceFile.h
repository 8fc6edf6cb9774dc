// Files that are read while they are written.
#pragma once

#include <sys/types.h>

#include <string>

// Replaces the content of a file, or makes it with that mode: a reader finds the old or the new
// one. Returns the reason if that fails, else an empty text.
std::string ReplaceFile(const std::string& file, const std::string& text, mode_t mode = 0600);
