// What a shell may offer for a word.
#pragma once

// Pin: an address or a pin. PinLevel: a pin, '=' and a level. The program itself says which there
// are, when it is called with --complete, "pin" or "level", and what stands there already.
enum class Completion { None, Interface, Pin, PinLevel, File };
