// IPv4 addresses as messages print them.
#pragma once

// The text of an address: DottedQuad(ip).text is "10.0.0.9". ip is in network byte order; its four
// bytes are printed in the order in which they lie in memory.
struct DottedQuad {
    explicit DottedQuad(unsigned long ip);

    char text[16];
};
