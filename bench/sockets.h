// Sockets for measurements; a failure to open one ends the program.
#pragma once

// Sockets that listen on, are bound to or are connected to "a.b.c.d" and a port.
int listen_at(const char* address, unsigned short port);
int connect_to(const char* address, unsigned short port);
int open_udp(const char* address, unsigned short port);  // port 0: any
void join(int sock, const char* group, const char* own_address);

// Ends the program with the message and the system's reason unless ok.
void require(bool ok, const char* what);
