// The conditions that a fuzz target checks.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// Prints the violated condition with its location, and ends the program: a finding. The message has
// its own descriptor, opened before the fuzzer silences the daemon's output.
#define CHECK(condition) \
    ((condition) ? static_cast<void>(0) : check_failed(#condition, __FILE__, __LINE__))

inline const int check_output = dup(STDERR_FILENO);

[[noreturn]] inline void check_failed(const char* condition, const char* file, int line) {
    dprintf(check_output, "%s:%d: does not hold: %s (errno %d)\n", file, line, condition, errno);
    abort();
}
