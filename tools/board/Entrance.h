// Through which proxies, and under which path, requests come in.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "tools/board/Http.h"

class Entrance {
public:
    // base begins and ends with '/'. Of proxies, only these addresses are believed.
    Entrance(std::string base, std::set<std::string> proxies)
        : m_base(std::move(base)), m_proxies(std::move(proxies)) {}

    // Replaces the path by what is below the base, and, if the request comes from a proxy, who sent
    // it and whether over TLS by what the proxy says. Returns the answer to requests elsewhere.
    std::optional<HttpResponse> Admit(HttpRequest& request) const;

private:
    std::string ClientOf(const HttpRequest& request) const;

    const std::string m_base;
    const std::set<std::string> m_proxies;
};

// Throws std::invalid_argument. Adds a missing '/' at the end.
std::string ParseBase(const std::string& text);

// The address in its one form: an IPv4 address also if it is written as an IPv6 address. Throws
// std::invalid_argument.
std::string ParseAddress(const std::string& text);
