// Signals as input of a loop instead of interruptions.
#pragma once

#include <initializer_list>
#include <optional>

#include "tools/base/Descriptor.h"

// Takes SIGINT and SIGTERM, and further signals that are named: from here on they do nothing but
// make the descriptor readable. Make one, before any thread starts; they stay blocked when it ends,
// and in children until these unblock them.
class Signals {
public:
    // Throws std::system_error when the system refuses.
    explicit Signals(std::initializer_list<int> others = {});

    // For poll() or select(): readable while a signal waits.
    int Get() const { return m_descriptor.Get(); }

    // The number of a signal that has come; none when none has. Never waits. Signals of one kind
    // that come before they are taken count once.
    std::optional<int> Take();

private:
    Descriptor m_descriptor;
};
