// What a fuzz target demands beside not crashing.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

// Tells the condition that does not hold, with its place, and ends the program: a finding. The
// message has a descriptor of its own, made before the fuzzer silences what the daemon prints.
#define CHECK(condition) \
    ((condition) ? static_cast<void>(0) : check_failed(#condition, __FILE__, __LINE__))

inline const int check_output = dup(STDERR_FILENO);

[[noreturn]] inline void check_failed(const char* condition, const char* file, int line) {
    dprintf(check_output, "%s:%d: does not hold: %s (errno %d)\n", file, line, condition, errno);
    abort();
}
