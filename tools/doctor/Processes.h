// Programs that run on this host, and the sockets they have.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

struct RunningProgram {
    pid_t pid = 0;
    unsigned long long started = 0;  // ticks since the system started
    std::string name;
    std::vector<std::string> arguments;    // the program's own name first
    std::vector<std::string> environment;  // "NAME=value"; empty when it may not be read
    bool shows_sockets = false;            // false: that needs more privileges
    std::set<unsigned long> sockets;       // their inodes

    // The value behind the last such option; empty when there is none.
    std::string Option(const std::string& option) const;

    // Empty when it is not set.
    std::string Variable(const std::string& variable) const;
};

// Those of this network namespace, and those of which that can't be told.
std::vector<RunningProgram> ReadPrograms();
