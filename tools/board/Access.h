// Who may do what.
#pragma once

#include <deque>
#include <set>
#include <string>

#include "tools/board/Http.h"

struct AccessSettings {
    bool allow_set = false;
    std::string token;
    std::set<std::string> hosts;  // further names that the board is reached by, without a port
};

// A page of another origin can make a browser send requests here, by a name that it had made to
// point to this address. So a request must name the board by an address, by "localhost" or by a
// name that it was given; a request to set needs the same in its Origin, the token, and a header
// that no form can send.
class Access {
public:
    explicit Access(AccessSettings settings) : m_settings(std::move(settings)) {}

    bool IsKnownHost(const std::string& host) const;

    struct Verdict {
        unsigned status = 200;
        std::string reason;  // empty: allowed
    };
    // Tokens that are wrong count: after a few the next ones are refused for a while unseen.
    Verdict MaySet(const HttpRequest& request, int64_t now);

    bool AllowsSet() const { return m_settings.allow_set; }

private:
    const AccessSettings m_settings;
    std::deque<int64_t> m_wrong;  // when, ms
};

// The token in a file: its first line. Throws std::runtime_error when it can't be read, is shorter
// than 16 characters or may be read by everyone.
std::string ReadToken(const std::string& file);
