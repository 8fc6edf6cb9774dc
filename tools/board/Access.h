// Who may do what.
#pragma once

#include <deque>
#include <set>
#include <string>

#include "tools/board/Http.h"

struct AccessSettings {
    bool allow_set = false;
    std::string token;
    std::set<std::string> hosts;  // further host names of the board, without a port
};

// A page of another origin can make a browser send requests here, under a name that it made resolve
// to this address. So the host of a request must be an address, "localhost" or a given name; a
// request to set needs the same in its Origin, the token, and a header that no form can send.
class Access {
public:
    explicit Access(AccessSettings settings) : m_settings(std::move(settings)) {}

    bool IsKnownHost(const std::string& host) const;

    struct Verdict {
        unsigned status = 200;
        std::string reason;  // empty: allowed
    };
    // Wrong tokens count: after a few, further ones are refused for a while without a check.
    Verdict MaySet(const HttpRequest& request, int64_t now);

    bool AllowsSet() const { return m_settings.allow_set; }

private:
    const AccessSettings m_settings;
    std::deque<int64_t> m_wrong;  // when, ms
};

// The token in a file: its first line. Throws std::runtime_error if it can't be read, is shorter
// than 16 characters or may be read by everyone.
std::string ReadToken(const std::string& file);
