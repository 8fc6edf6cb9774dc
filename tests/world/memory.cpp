// Allocations of the daemon, which can fail. Not linked with the fuzz targets: the sanitizers
// replace the same functions.
#include <new>

#include "tests/world/World.h"

namespace {

bool is_short() {
    if (!World::Exists() || World::Get().memory_left < 0 || World::Get().running != nullptr ||
        --World::Get().memory_left >= 0) {
        return false;
    }
    World::Get().Fault("new: Cannot allocate memory");
    World::Get().Log({"no memory "});
    return true;
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short() ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short() ? nullptr : operator new[](size);
}
