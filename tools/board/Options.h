// The board's command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/board/UserCommand.h"

struct Options {
    std::string iface;
    std::string listen = "127.0.0.1:8093";
    std::string db;
    std::string names;
    std::string walls;
    std::string control;
    std::string keep = "90d";
    std::string keep_size = "1G";
    std::string group = "239.192.255.4";
    std::vector<std::string> hosts;
    bool allow_set = false;
    std::string token_file;
    std::string users;
    std::string certificate;
    std::string key;
    std::string base = "/";
    std::vector<std::string> proxies;
    UserOptions user;  // of the command
};

// Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options);

// "10.0.0.7:8093" or "[::1]:8093"; with a default the port may be omitted. Throws
// std::invalid_argument.
struct HostPort {
    std::string host;
    uint16_t port;
};
HostPort ParseHostPort(const std::string& text, std::optional<uint16_t> otherwise = std::nullopt);

// "90d" or "12h" in ms, "500M" or "2G" in bytes. Throw std::invalid_argument.
int64_t ParseAge(const std::string& text);
int64_t ParseSize(const std::string& text);
