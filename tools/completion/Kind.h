// What a shell may offer for a word.
#pragma once

// Pin: an address or a pin. PinLevel: a pin, '=' and a level. The program itself lists them when
// called with --complete, "pin" or "level", and the beginning of the word.
enum class Completion { None, Interface, Pin, PinLevel, File };
