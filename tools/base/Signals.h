// Signals as input of a loop instead of interruptions.
#pragma once

#include <initializer_list>
#include <optional>

#include "tools/base/Descriptor.h"

// Catches SIGINT, SIGTERM and further given signals: from then on they only make the descriptor
// readable. Create one before any thread starts. The signals stay blocked after its end, and in
// children until these unblock them.
class Signals {
public:
    // Throws std::system_error on failure.
    explicit Signals(std::initializer_list<int> others = {});

    // For poll() or select(): readable while a signal is pending.
    int Get() const { return m_descriptor.Get(); }

    // The number of a pending signal, if any. Never waits. Several signals of one kind that arrive
    // before this call count once.
    std::optional<int> Take();

private:
    Descriptor m_descriptor;
};
