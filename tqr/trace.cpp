#include "tqr/trace.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

int dbg = 0;

DottedQuad::DottedQuad(unsigned long ip) {
    const uint32_t address = static_cast<uint32_t>(ip);
    unsigned char part[sizeof address];
    memcpy(part, &address, sizeof part);
    snprintf(text, sizeof text, "%d.%d.%d.%d", part[0], part[1], part[2], part[3]);
}
