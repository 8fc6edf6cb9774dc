#include "tools/base/Random.h"

#include <sys/random.h>

#include <cerrno>

uint32_t RandomBits() {
    uint32_t bits = 0;
    while (getrandom(&bits, sizeof bits, 0) < 0 && errno == EINTR) {
    }
    return bits;
}
