// What a shell may offer for a word.
#pragma once

// Pin: an address or a pin. PinLevel: a pin, '=' and a level. The program itself lists them, and
// addresses, when called with --complete, "pin", "level" or "address", and the beginning of the
// word, and the file if one was given. Names: a file that matters for these.
enum class Completion { None, Interface, Address, Pin, PinLevel, File, Names };
