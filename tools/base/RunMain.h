// The end of a program whose failures are thrown.
#pragma once

#include <functional>

// Runs the program and returns its exit status. What it throws ends it: standard error tells, after
// the name of the program, and the exit status is 1.
int RunMain(const char* name, const std::function<int()>& program);
