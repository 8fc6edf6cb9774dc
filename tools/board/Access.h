// Who may do what.
#pragma once

#include <map>
#include <set>
#include <string>

#include "tools/base/Time.h"
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
    // Wrong tokens are counted by visitor and network: 429 is for too many in a minute.
    Verdict MaySet(const HttpRequest& request, TimePoint now);

    bool AllowsSet() const { return m_settings.allow_set; }

private:
    bool CountsAsFew(const std::string& peer, TimePoint now);

    const AccessSettings m_settings;
    std::map<std::string, unsigned> m_wrong;  // wrong tokens since then, by visitor and network
    TimePoint m_wrong_since{};
};

// The token in a file: its first line. Throws std::runtime_error if it can't be read, is shorter
// than 16 characters or may be read by everyone.
std::string ReadToken(const std::string& file);
