// Programs running on this host, and their sockets.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

struct RunningProgram {
    pid_t pid = 0;
    bool is_elsewhere = false;       // in another network namespace
    bool is_stopped = false;         // by SIGSTOP or a debugger
    unsigned long long started = 0;  // ticks since the system started
    std::string name;
    std::vector<std::string> arguments;    // the program's own name first
    std::vector<std::string> environment;  // "NAME=value"; empty if it can't be read
    bool shows_sockets = false;            // false: that needs more privileges
    std::set<unsigned long> sockets;       // their inodes

    // The value after the last such option; empty if there is none.
    std::string Option(const std::string& option) const;

    // Empty if it is not set.
    std::string Variable(const std::string& variable) const;
};

// Those that this user can see, without those that have ended.
std::vector<RunningProgram> ReadPrograms();

// "orvex, process 12"
std::string ProcessText(const RunningProgram& program);
