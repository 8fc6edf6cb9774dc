// Memory for the daemon, as long as the world has some. Not for the fuzz targets, whose sanitizers
// have their own.
#include <new>

#include "tests/world/World.h"

namespace {

bool is_short() {
    if (!World::Exists()) {
        return false;
    }
    World& world = World::Get();
    if (world.memory_left < 0 || world.running != nullptr || --world.memory_left >= 0) {
        return false;
    }
    ++world.faults;
    world.Count("fault: new: Cannot allocate memory");
    Call call;
    call.kind = "no memory";
    world.Log(call);
    return true;
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short() ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short() ? nullptr : operator new[](size);
}
