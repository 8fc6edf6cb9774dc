// Allocations of the daemon, which can fail. Not linked with the fuzz targets: the sanitizers
// replace the same functions.
#include <new>

#include "tests/world/World.h"

namespace {

// Whether it is that of a buffer for lines: 2,000 bytes, a NUL, and 512 behind them.
bool is_buffer(size_t size) {
    return size == 2513;
}

bool is_short(size_t size) {
    if (!World::Exists() || World::Get().memory_left < 0 || World::Get().running != nullptr ||
        --World::Get().memory_left >= 0) {
        return false;
    }
    World::Get().Fault("new: Cannot allocate memory");
    World::Get().Log({is_buffer(size) ? "no buffer " : "no memory "});
    return true;
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new[](size);
}
