#include "tools/board/Options.h"

#include <arpa/inet.h>

#include <charconv>
#include <stdexcept>

#include "protocol/numbers.h"
#include "tools/board/Entrance.h"
#include "tools/completion/CommandLine.h"

namespace {

const char* const DESCRIPTION =
    "Shows the pins of the bus in a browser: their levels, since when, and who set them. Keeps\n"
    "their history.\n";

const char* const FOOTER =
    "Uses a listening socket from its parent process (LISTEN_FDS) instead of --listen.\n"
    "Exit status: 0 after SIGINT or SIGTERM; 1 if it can't listen or read a file; 2 for a usage\n"
    "error.\n";

// A number with a unit.
int64_t ParseAmount(const std::string& text, const std::string& units, const int64_t* factors,
                    const char* what) {
    int64_t number = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    const size_t unit =
        parsed.ptr + 1 == text.data() + text.size() ? units.find(*parsed.ptr) : std::string::npos;
    if (parsed.ec != std::errc() || number < 1 || number > 100000 || unit == std::string::npos) {
        throw std::invalid_argument(std::string("not ") + what + ": " + text);
    }
    return number * factors[unit];
}

// Places: the bus, the browsers, files and servers.
void AddPlaces(CLI::App& app, Options& options, CompletionKinds& kinds) {
    kinds[app.add_option("-i,--interface", options.iface,
                         "Interface of the bus, its name or address")
              ->type_name("NAME")] = Completion::Interface;
    app.add_option("--listen", options.listen, "Address for browsers")
        ->type_name("IP:PORT")
        ->check(Parses([](const std::string& text) { ParseHostPort(text); }))
        ->capture_default_str();
    kinds[app.add_option("--db", options.db, "Keep the history in this file")->type_name("FILE")] =
        Completion::File;
    kinds[app.add_option("--names", options.names, "Names of pins and addresses")
              ->type_name("FILE")] = Completion::File;
    kinds[app.add_option("--walls", options.walls, "Keep the walls in this file")
              ->type_name("FILE")] = Completion::File;
    app.add_option("-r,--control", options.control, "Follow this control server (port 93)")
        ->type_name("IP[:PORT]")
        ->check(Parses([](const std::string& text) { ParseHostPort(text, LINE_PORT); }));
}

// What is kept, and who may do what.
void AddRules(CLI::App& app, Options& options, CompletionKinds& kinds) {
    app.add_option("--keep", options.keep, "Keep events for this time")
        ->type_name("TIME")
        ->check(Parses(ParseAge))
        ->capture_default_str();
    app.add_option("--keep-size", options.keep_size, "Maximum size of the history")
        ->type_name("SIZE")
        ->check(Parses(ParseSize))
        ->capture_default_str();
    app.add_option("--group", options.group, "Multicast group of the bus")
        ->type_name("IP")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--host", options.hosts, "A name by which browsers may call it; repeatable")
        ->type_name("HOST")
        ->allow_extra_args(false);
    CLI::Option* const token = app.add_option("--token-file", options.token_file,
                                              "File with the token that is asked for to set a pin")
                                   ->type_name("FILE");
    CLI::Option* const users =
        app.add_option("--users", options.users, "File of users and tokens with their rights")
            ->type_name("FILE");
    app.add_flag("--allow-set", options.allow_set,
                 "Let those who have the token, or the right, set pins");
    kinds[token] = Completion::File;
    kinds[users] = Completion::File;
}

// How browsers reach it.
void AddEntrance(CLI::App& app, Options& options, CompletionKinds& kinds) {
    CLI::Option* const certificate =
        app.add_option("--tls-certificate", options.certificate,
                       "Speak HTTPS with this certificate and the chain after it (PEM)")
            ->type_name("FILE");
    CLI::Option* const key =
        app.add_option("--tls-key", options.key, "Its key (PEM)")->type_name("FILE");
    certificate->needs(key);
    key->needs(certificate);
    kinds[certificate] = Completion::File;
    kinds[key] = Completion::File;
    app.add_option("--base", options.base, "Path under which a proxy passes requests on")
        ->type_name("PATH")
        ->check(Parses(ParseBase))
        ->capture_default_str();
    app.add_option("--proxy", options.proxies,
                   "Address of a proxy whose X-Forwarded-For is believed; repeatable")
        ->type_name("IP")
        ->check(Parses(ParseAddress))
        ->allow_extra_args(false);
}

// The command "user".
void AddUserCommand(CLI::App& app, UserOptions& user, CompletionKinds& kinds) {
    CLI::App* const command = app.add_subcommand("user", "Add, list or remove users of a board");
    command->footer(
        "A password is asked for, or read from the first line of the input.\n"
        "Exit status: 0; 1 if the file can't be read or written; 2 for a usage error.\n");
    command->add_option("ACTION", user.action, "add, list or remove")
        ->type_name("")
        ->required()
        ->check(CLI::IsMember({"add", "list", "remove"}));
    command->add_option("NAME", user.name, "Of the user or token, or guest")->type_name("");
    command->add_option("RIGHT", user.rights, "read, set, read=PINS, set=PINS or edit")
        ->type_name("");
    kinds[command->add_option("--users", user.file, "The file")->type_name("FILE")->required()] =
        Completion::File;
    command->add_flag("--token", user.token, "A token for a program, which is printed");
}

}  // namespace

HostPort ParseHostPort(const std::string& text, std::optional<uint16_t> otherwise) {
    const size_t colon = text.rfind(':');
    const bool bare = otherwise && colon == text.npos;
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    unsigned port = otherwise.value_or(0);
    const char* const end = text.data() + text.size();
    unsigned char bytes[16];
    const bool address = inet_pton(AF_INET, host.c_str(), bytes) == 1 ||
                         inet_pton(AF_INET6, host.c_str(), bytes) == 1;
    if (!bare && colon != text.npos) {
        const auto parsed = std::from_chars(text.data() + colon + 1, end, port);
        if (parsed.ec != std::errc() || parsed.ptr != end || port > 65535) {
            throw std::invalid_argument("not an IP:PORT: " + text);
        }
    }
    if (!address || (!bare && colon == text.npos)) {
        throw std::invalid_argument("not an IP:PORT: " + text);
    }
    return {host, static_cast<uint16_t>(port)};
}

int64_t ParseAge(const std::string& text) {
    const int64_t factors[] = {86400000, 3600000};
    return ParseAmount(text, "dh", factors, "a number of days or hours (90d, 12h)");
}

int64_t ParseSize(const std::string& text) {
    const int64_t factors[] = {1 << 20, 1 << 30};
    return ParseAmount(text, "MG", factors, "a size (500M, 2G)");
}

std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CommandLine line("orvex-board", DESCRIPTION, FOOTER);
    CompletionKinds kinds;
    AddPlaces(line, options, kinds);
    AddRules(line, options, kinds);
    AddEntrance(line, options, kinds);
    AddUserCommand(line, options.user, kinds);
    line.callback([&options] {
        if (options.allow_set && options.token_file.empty() && options.users.empty()) {
            throw CLI::RequiresError("--allow-set", "--token-file or --users");
        }
    });
    return line.Parse(argc, argv, kinds);
}
