// Allocations of the daemon, which can fail. Not linked with the fuzz targets: the sanitizers
// replace the same functions.
#include <new>
#include <utility>

#include "rudp/RUdpTIDMap.h"
#include "tests/world/World.h"

namespace {

// Whether it is that of a buffer for lines: 2,000 bytes, a NUL, and 512 behind them.
bool is_buffer(size_t size) {
    return size == 2513;
}

// Whether it makes room for more senders: 32 nodes, or the small entry in the list of such chunks,
// which is allocated right behind them and known by that alone.
bool is_for_senders(size_t size) {
    static bool has_nodes = false;
    const bool is_nodes = size == 32 * sizeof(CRUdpTIDMap::Node);
    return std::exchange(has_nodes, is_nodes && World::Get().memory_left > 0) || is_nodes;
}

bool is_short(size_t size) {
    if (!World::Exists() || World::Get().memory_left < 0 || World::Get().running != nullptr) {
        return false;
    }
    const bool for_senders = is_for_senders(size);
    if (--World::Get().memory_left >= 0) {
        return false;
    }
    World::Get().Fault("new: Cannot allocate memory");
    World::Get().Log({is_buffer(size) ? "no buffer " : for_senders ? "no senders " : "no memory "});
    return true;
}

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return is_short(size) ? nullptr : operator new[](size);
}
