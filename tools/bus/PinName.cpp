#include "tools/bus/PinName.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "protocol/numbers.h"

const char* const PIN_NAMES = "in1 to in5, out1 to out5, c0 to c255";

namespace {

const uint32_t MAX_ADDRESS = 0xFFFFFF;
const uint32_t MAX_LOW = 0xFF;  // of a circuit, and of b in a:b

struct NamedCircuit {
    const char* name;
    uint8_t circuit;
};

const NamedCircuit CIRCUITS[] = {{"in1", 13}, {"in2", 12}, {"in3", 11}, {"in4", 10}, {"in5", 9},
                                 {"out1", 8}, {"out2", 7}, {"out3", 6}, {"out4", 5}, {"out5", 4}};
const uint8_t LOWEST_INPUT = FIRST_INPUT_CIRCUIT - PIN_COUNT + 1;

const NamedCircuit* FindCircuit(uint8_t circuit) {
    for (const NamedCircuit& named : CIRCUITS) {
        if (named.circuit == circuit) {
            return &named;
        }
    }
    return nullptr;
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == ':') {
            parts.emplace_back();
        } else {
            parts.back().push_back(c);
        }
    }
    return parts;
}

// The whole text as a number up to max, in any base.
std::optional<uint32_t> ParseNumber(const std::string& text, uint32_t max) {
    if (text.empty() || isdigit(static_cast<unsigned char>(text[0])) == 0) {
        return std::nullopt;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number > max) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(number);
}

std::optional<uint8_t> ParseCircuit(const std::string& text) {
    const auto number = ParseNumber(text, MAX_LOW);
    return number ? std::optional<uint8_t>(static_cast<uint8_t>(*number)) : std::nullopt;
}

std::optional<uint8_t> ParsePinName(const std::string& text) {
    const std::string name = Lower(text);
    for (const NamedCircuit& named : CIRCUITS) {
        if (name == named.name) {
            return named.circuit;
        }
    }
    return !name.empty() && name[0] == 'c' ? ParseCircuit(name.substr(1)) : std::nullopt;
}

[[noreturn]] void Refuse(const std::string& reason) {
    throw std::invalid_argument(reason);
}

// One or two numbers; nothing if the text is something else.
std::optional<uint32_t> ParseAddress(const std::vector<std::string>& parts) {
    const auto first = ParseNumber(parts[0], MAX_ADDRESS);
    if (parts.size() == 1 || !first) {
        return first;
    }
    const auto second = ParseNumber(parts[1], UINT32_MAX);
    if (parts.size() > 2 || !second || *first > MAX_ADDRESS >> 8) {
        return std::nullopt;
    }
    if (*second > MAX_LOW) {
        Refuse("the second number of an address is 0 to 255: " + parts[0] + ":" + parts[1]);
    }
    return *first << 8 | *second;
}

// Whether the last of several parts is meant as a pin.
bool IsPinWanted(const std::vector<std::string>& parts) {
    const std::string& last = parts.back();
    return parts.size() == 3 ||
           (!last.empty() && isdigit(static_cast<unsigned char>(last[0])) == 0);
}

}  // namespace

std::vector<uint32_t> PinRef::Tags() const {
    if (circuit) {
        return {address << 8 | *circuit};
    }
    std::vector<uint32_t> tags;
    for (const NamedCircuit& named : CIRCUITS) {
        tags.push_back(address << 8 | named.circuit);
    }
    return tags;
}

bool PinRef::Matches(uint32_t tag) const {
    return tag >> 8 == address && (!circuit || *circuit == (tag & MAX_LOW));
}

PinRef ParsePinRef(const std::string& text) {
    std::vector<std::string> parts = Split(text);
    PinRef pins;
    std::string unknown;
    if (parts.size() > 1 && IsPinWanted(parts)) {
        pins.circuit = ParsePinName(parts.back());
        if (!pins.circuit && parts.size() == 3) {
            pins.circuit = ParseCircuit(parts.back());
        }
        unknown = pins.circuit ? "" : parts.back();
        parts.pop_back();
    }
    const auto address = ParseAddress(parts);
    if (!address) {
        Refuse("not an ADDRESS or ADDRESS:PIN: " + text);
    }
    if (!unknown.empty()) {
        Refuse("no pin " + unknown + "; pins are " + PIN_NAMES + ": " + text);
    }
    if (text.back() == ':') {
        Refuse("not an ADDRESS or ADDRESS:PIN: " + text);
    }
    pins.address = *address;
    return pins;
}

uint32_t ParsePin(const std::string& text) {
    const PinRef pins = ParsePinRef(text);
    if (!pins.circuit) {
        Refuse(text + " is an address and names no pin; add one of " + PIN_NAMES);
    }
    return pins.Tags()[0];
}

bool IsPinName(const std::string& text) {
    return ParsePinName(text).has_value();
}

bool IsNamedPin(uint32_t tag) {
    return FindCircuit(static_cast<uint8_t>(tag)) != nullptr;
}

bool IsInput(uint32_t tag) {
    return IsNamedPin(tag) && (tag & MAX_LOW) >= LOWEST_INPUT;
}

std::string CircuitText(uint8_t circuit) {
    const NamedCircuit* named = FindCircuit(circuit);
    return named != nullptr ? named->name : "c" + std::to_string(circuit);
}

std::string AddressText(uint32_t address) {
    const std::string low = std::to_string(address & MAX_LOW);
    return address > MAX_LOW ? std::to_string(address >> 8) + ":" + low : low;
}

std::string PinText(uint32_t tag) {
    return AddressText(tag >> 8) + ":" + CircuitText(static_cast<uint8_t>(tag));
}
