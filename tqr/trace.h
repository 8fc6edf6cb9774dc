// Shared by the daemon's trace lines and messages.
#pragma once

// The debug flag of the process: 1 makes every part of the daemon print its trace lines on standard
// output.
extern int dbg;

// The text of an address: DottedQuad(ip).text is "10.0.0.9". ip is in network byte order; its four
// bytes are printed in the order they have in memory.
struct DottedQuad {
    explicit DottedQuad(unsigned long ip);

    char text[16];
};
