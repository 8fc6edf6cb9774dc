// Numbers that nobody can foresee.
#pragma once

#include <cstdint>

// 32 random bits, to begin a generator with; 0 if the system has none to give. They are the
// kernel's, not the processor's as those of std::random_device may be: a simulated system can
// repeat them.
uint32_t RandomBits();
