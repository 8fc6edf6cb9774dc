// Pins and addresses as people write them.
//
// An ADDRESS is a number, or two: a:b is a * 256 + b, b up to 255. Numbers are decimal, hexadecimal
// (0x10) or octal (010). A PIN is in1 to in5, out1 to out5, or a circuit by its number: c0 to c255.
//
// ADDRESS:PIN is a pin. After an address of two numbers the "c" of a circuit may be omitted:
// 258:out1, 1:2:out1, 0x102:c8 and 1:2:8 are all one pin, but 258:8 is an address without a pin.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// For messages.
extern const char* const PIN_NAMES;  // "in1 to in5, out1 to out5, c0 to c255"

// The pins of an address, or one of them. On the bus, a pin's tag has the address in the upper 24
// bits and the circuit in the low 8.
struct PinRef {
    uint32_t address = 0;
    std::optional<uint8_t> circuit;  // none: every pin that has a name

    // The tags of the pins: the one, or in1 to in5 and out1 to out5.
    std::vector<uint32_t> Tags() const;

    // Whether the tag is one of these pins, or without a circuit, has the address.
    bool Matches(uint32_t tag) const;
};

// Throws std::invalid_argument with the reason.
PinRef ParsePinRef(const std::string& text);

// The same for exactly one pin; returns its tag.
uint32_t ParsePin(const std::string& text);

// Whether the text is a pin without an address: "out1", "c20".
bool IsPinName(const std::string& text);

// Whether the tag's circuit has a name.
bool IsNamedPin(uint32_t tag);

bool IsInput(uint32_t tag);

// "out1" or "c20"
std::string CircuitText(uint8_t circuit);

// "7" or "1:2"
std::string AddressText(uint32_t address);

// "1:2:out1"; a circuit without a name as "1:2:c20".
std::string PinText(uint32_t tag);
