// Runs a program that throws its failures.
#pragma once

#include <functional>

// Runs the program and returns its exit status. An exception ends it with status 1 and a message on
// standard error, after the name of the program. In the journal of systemd, what the program
// writes to standard error is marked as errors; see MarkErrors().
int RunMain(const char* name, const std::function<int()>& program);
