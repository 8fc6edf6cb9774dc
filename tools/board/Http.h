// Requests and responses as the parts behind the server see them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct HttpRequest {
    // A header's value, empty without it; name in lower case.
    std::string Header(const std::string& name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? "" : found->second;
    }

    // A field of the query, none without it.
    std::optional<std::string> Field(const std::string& name) const {
        const auto found = query.find(name);
        return found == query.end() ? std::nullopt : std::optional(found->second);
    }

    std::string method;
    std::string path;                            // decoded, without the query
    std::map<std::string, std::string> query;    // decoded; of repeated fields the last
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    std::string peer;  // address of the client
};

struct HttpResponse {
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
    std::string_view fixed;  // instead of body: bytes that outlive the server
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<uint64_t> follow;  // behind the body events follow from that number on
};

// "a%20b+c" as "a b c"; false when a % is not followed by two digits, or the text has a NUL.
bool DecodeUrl(std::string_view text, std::string& decoded);

// Path and query of a request's target. False when they can't be read.
bool ParseTarget(std::string_view target, HttpRequest& request);
