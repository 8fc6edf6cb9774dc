// Allocations of the daemon, which can fail. Not linked with the fuzz targets: the sanitizers
// replace the same functions.
#include <new>

#include "tests/world/World.h"

namespace {

const size_t BUFFER = 2001;  // of a connection, for its lines; nothing else has this size

bool is_short(size_t size) {
    if (!World::Exists() || World::Get().memory_left < 0 || World::Get().running != nullptr ||
        --World::Get().memory_left >= 0) {
        return false;
    }
    World::Get().Fault("new: Cannot allocate memory");
    World::Get().Log({size == BUFFER ? "no buffer " : "no memory "});
    return true;
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new[](size);
}
