// What is found about a duty of a peer.
#pragma once

#include <stdexcept>
#include <string>

enum class Verdict { Met, NotMet, NotTried };

// A text that is empty has nothing to tell.
struct Outcome {
    Verdict verdict = Verdict::Met;
    std::string sent;      // to the peer
    std::string expected;  // of it
    std::string seen;      // instead, or why the duty was not tried
};

inline Outcome NotTried(const std::string& why) {
    return {Verdict::NotTried, {}, {}, why};
}

struct DutyFinding {
    const char* duty;  // a word
    const char* text;  // what it asks of the peer
    Outcome outcome;
};

// There is nobody whose duties could be tried.
struct NobodyThere : std::runtime_error {
    NobodyThere(const std::string& reason, int error_)
        : std::runtime_error(reason), error(error_) {}

    int error;  // errno, 0: none
};
