// The command line.
//
// The tables below contain everything it accepts: the parser, the help and shell completion are
// made from them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "net/SvcAddress.h"
#include "tools/bus/BusLink.h"
#include "tools/bus/Names.h"
#include "tools/bus/PinName.h"
#include "tools/bus/PinWrite.h"
#include "tools/completion/Kind.h"
#include "tools/ctl/ChangeText.h"
#include "tools/ctl/Console.h"
#include "tools/ctl/Runner.h"

// Addresses from the first to the last. The default is everything that fits into two numbers of a
// byte each.
struct AddressRange {
    uint32_t first = 0;
    uint32_t last = 0xFFFF;
    bool is_default = true;
};

// Numbers of inputs, from the first to the last.
struct NumberRange {
    int first;
    int last;
};

struct PinCondition {
    uint32_t tag;
    Level level;
};

struct Options {
    BusSettings bus;
    Console console;
    bool json = false;
    bool reliable = false;
    bool check = false;
    bool any = false;
    bool edge = false;
    bool changes = false;
    bool all = false;    // including repeats
    bool force = false;  // overwrite files
    bool fast = false;   // without pauses
    bool loop = false;
    bool rotated = false;  // also the files that were put aside
    double speed = 1;
    std::optional<unsigned long> count;
    std::optional<double> seconds;
    std::optional<double> heartbeat;  // seconds
    std::optional<ChangeFormat> format;
    AddressRange range;
    std::vector<PinRef> pins;
    std::vector<PinWrite> writes;
    std::vector<PinCondition> conditions;
    std::string file;
    std::optional<uint64_t> max_size;   // bytes, of a recording before it is put aside
    std::optional<unsigned long> keep;  // how many of those put aside
    std::string names_file;             // empty: the user's
    Names names;
    CSvcAddress tqrd{0x7F000001, LINE_PORT};  // the control server
    std::optional<std::string> explain;       // a source to explain instead of querying a server
    std::optional<NumberRange> inputs;        // of a remote GPIO server, to query it for
    double hold = 0;                          // seconds that a level must last
    bool once = false;                        // run the command once
    RunnerSettings runner;
    bool plugin = false;   // report as a monitoring plugin
    bool metrics = false;  // report in the text format of Prometheus
    std::string role;      // of the peer whose duties are tried: control, remote or peer
    int input = 1;         // of a remote GPIO server
    bool tap = false;      // report as a test does
};

// The positional arguments of a command; the setter takes one word.
struct ArgumentSpec {
    const char* name;
    bool required;
    bool repeats;
    Completion completion;
    const char* help;
    void (*set)(Options& options, const std::string& text);
};

struct CommandSpec {
    const char* name;
    const char* summary;
    const char* details;  // the rest of --help; never null
    std::vector<ArgumentSpec> arguments;
    int (*run)(const Options& options);  // returns the exit status; may throw a Failure
};

// An option with the name of its value, or a flag with null. commands contains the names of the
// commands that have it, separated by blanks; null: all of them. Setters throw
// std::invalid_argument with the reason.
struct OptionSpec {
    const char* names;  // "-W,--wait"
    const char* value;
    Completion completion;
    const char* commands;
    const char* help;
    void (*set)(Options& options, const std::string& text);
};

struct StatusSpec {
    int status;
    const char* meaning;
};

extern const std::vector<CommandSpec> COMMANDS;
extern const std::vector<OptionSpec> OPTIONS;
extern const std::vector<StatusSpec> STATUSES;

// Reads a command line into options. Null if the program should end with the status.
const CommandSpec* ParseCommandLine(int argc, char** argv, Options& options, int& status);
