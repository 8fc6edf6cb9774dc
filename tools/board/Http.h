// Requests and responses as seen by the parts behind the server.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct Audience;
struct Visit;

struct HttpRequest {
    // A header's value, empty if there is none; name in lower case.
    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? "" : found->second;
    }

    // A field of the query, if there is one.
    std::optional<std::string> Field(const std::string& name) const {
        const auto found = query.find(name);
        return found == query.end() ? std::nullopt : std::optional(found->second);
    }

    // The value of a cookie, empty if there is none.
    std::string CookieOf(const std::string& name) const;

    std::string method;
    std::string path;                            // decoded, without the query
    std::map<std::string, std::string> query;    // decoded; the last one of repeated fields
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    std::string peer;                    // address of the client
    bool secure = false;                 // it came over TLS
    std::shared_ptr<const Visit> visit;  // who it is, once that is known
};

struct HttpResponse {
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
    std::string_view fixed;  // used instead of body: bytes that outlive the server
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<uint64_t> follow;  // after the body, events follow from that number on,
    std::function<bool(const Audience&)> takes;  // those for which this is true; null: all
    std::shared_ptr<const Visit> visit;          // to whom
    // Instead of all this, the response comes later: this is called with whom to give it to.
    using Done = std::function<void(HttpResponse)>;
    std::function<void(const Done&)> later;
};

// A refusal in plain text.
HttpResponse Refuse(unsigned status, const std::string& reason);

// "a%20b+c" as "a b c"; false if a % is not followed by two digits, or the text has a NUL.
bool DecodeUrl(std::string_view text, std::string& decoded);

// What one visitor is counted by: an IPv4 address, or the /64 network of an IPv6 address, in which
// a host may choose its addresses. And the network around it: /24, or /48.
std::string VisitorOf(const std::string& address);
std::string NetworkOf(const std::string& address);

// Path and query of a request's target. False if they are malformed.
bool ParseTarget(std::string_view target, HttpRequest& request);
