// The settings from environment variables.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/orvex.h"

CTQRLimits tqr_limits;
bool resubscribe = false;

namespace {

const double MAX_SECONDS = 86400;
const unsigned int MIN_PEER_MS = 2000;  // a healthy peer may take a second to answer

// The variable's value; null if it is not set or empty.
const char* value_of(const char* name) {
    const char* const value = getenv(name);
    return value == nullptr || *value == '\0' ? nullptr : value;
}

// Milliseconds, rounded up; 0 if the variable is not set or its value is invalid.
unsigned int read_seconds(const char* name) {
    const char* const value = value_of(name);
    if (value == nullptr) {
        return 0;
    }
    char* end = nullptr;
    const double seconds = strtod(value, &end);
    // Only plain numbers: strtod also accepts "inf", "1e3" and "-1".
    const bool is_number = *end == '\0' && strspn(value, "0123456789.") == strlen(value);
    if (!is_number || seconds > MAX_SECONDS) {
        fprintf(stderr, "%s: %s=%s ignored: not 0 to 86400 seconds\n", APP_NAME, name, value);
        return 0;
    }
    const double ms = seconds * 1000;
    const unsigned int whole = static_cast<unsigned int>(ms);
    return whole < ms ? whole + 1 : whole;
}

bool read_yes(const char* name) {
    const char* const value = value_of(name);
    if (value == nullptr || strcmp(value, "no") == 0) {
        return false;
    }
    if (strcmp(value, "yes") != 0) {
        fprintf(stderr, "%s: %s=%s ignored: neither yes nor no\n", APP_NAME, name, value);
        return false;
    }
    return true;
}

}  // namespace

void read_environment() {
    tqr_limits.connect_ms = read_seconds("ORVEX_CONNECT_TIMEOUT");
    tqr_limits.peer_ms = read_seconds("ORVEX_PEER_TIMEOUT");
    if (tqr_limits.peer_ms != 0) {
        tqr_limits.peer_ms = std::max(tqr_limits.peer_ms, MIN_PEER_MS);
    }
    resubscribe = read_yes("ORVEX_RESUBSCRIBE");
    local.set_limits(tqr_limits);
    gpiocli.set_limits(tqr_limits);
}
