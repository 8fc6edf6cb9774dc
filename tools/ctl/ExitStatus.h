// The program's exit statuses.
#pragma once

#include <stdexcept>
#include <string>

enum ExitStatus : int {
    STATUS_DONE = 0,
    STATUS_FAILED = 1,
    STATUS_USAGE = 2,
    STATUS_NO_ANSWER = 3,
};

// A reason to end the program, printed on standard error.
struct Failure : std::runtime_error {
    Failure(ExitStatus status_, const std::string& reason)
        : std::runtime_error(reason), status(status_) {}

    ExitStatus status;
};
