// What programs with sockets and a loop share.
#pragma once

#include <string>

// Throws std::system_error with errno, and what failed, unless ok.
void Check(bool ok, const std::string& what);

// Whether a call that never waits failed only for now.
bool IsTransient(int error);

// Lets the system end a connection to a host that has vanished, after a few times so many seconds.
void WatchPeer(int socket, int seconds);
