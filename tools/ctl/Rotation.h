// Files that are put aside when they are full: FILE becomes FILE.1, what was that before becomes
// FILE.2, and so on.
#pragma once

#include <string>
#include <vector>

// Puts the file aside, if there is one, and keeps so many of those put aside before. Throws a
// Failure.
void PutAside(const std::string& file, unsigned long keep);

// The file after those that were put aside, the oldest first.
std::vector<std::string> OldestFirst(const std::string& file);
