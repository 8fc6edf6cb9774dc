// The measured paths through the daemon.
#pragma once

#include <cstring>
#include <iterator>

#include "protocol/numbers.h"

enum class Path {
    Write,    // a write from the bus to the line at the control server
    Report,   // a line from the control server to the report on the bus
    Read,     // a read from the bus to the reply on the bus
    Mirror,   // a line from a remote server to the line at the control server
    Reliable  // a reliable write for pins of another device to its acknowledgement
};

const char* const PATH_NAMES[] = {"write", "report", "read", "mirror", "reliable"};
const int PATH_COUNT = static_cast<int>(std::size(PATH_NAMES));

inline const char* path_name(Path path) {
    return PATH_NAMES[static_cast<int>(path)];
}

// False if there is no path with this name.
inline bool find_path(const char* name, Path& path) {
    for (int i = 0; i < PATH_COUNT; ++i) {
        if (strcmp(name, PATH_NAMES[i]) == 0) {
            path = static_cast<Path>(i);
            return true;
        }
    }
    return false;
}

// Addresses. The device and the studio are two hosts on one cable.
const char* const DEVICE_ADDRESS = "10.77.0.1";
const char* const STUDIO_ADDRESS = "10.77.0.2";
const char* const CONTROL_ADDRESS = "127.0.0.1";
const char* const GROUP_ADDRESS = "239.192.255.4";
