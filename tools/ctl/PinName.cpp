#include "tools/ctl/PinName.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace {

const uint32_t MAX_ADDRESS = 0xFFFFFF;
const uint32_t MAX_CIRCUIT = 0xFF;

struct NamedCircuit {
    const char* name;
    uint8_t circuit;
};

const NamedCircuit CIRCUITS[] = {{"in1", 13}, {"in2", 12}, {"in3", 11}, {"in4", 10}, {"in5", 9},
                                 {"out1", 8}, {"out2", 7}, {"out3", 6}, {"out4", 5}, {"out5", 4}};
const uint8_t LOWEST_INPUT = 9;

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
    const auto number = ParseNumber(text, MAX_CIRCUIT);
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

// One or two numbers.
std::optional<uint32_t> ParseAddress(const std::vector<std::string>& parts) {
    const auto first = ParseNumber(parts[0], MAX_ADDRESS);
    if (parts.size() == 1 || !first) {
        return first;
    }
    const auto second = ParseNumber(parts[1], MAX_ADDRESS);
    if (parts.size() > 2 || !second || *first > MAX_ADDRESS >> 8) {
        return std::nullopt;
    }
    return *first << 8 | *second;
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
    return tag >> 8 == address && (!circuit || *circuit == (tag & MAX_CIRCUIT));
}

PinRef ParsePinRef(const std::string& text) {
    std::vector<std::string> parts = Split(text);
    PinRef pins;
    if (parts.size() > 1) {
        pins.circuit = ParsePinName(parts.back());
        if (!pins.circuit && parts.size() == 3) {
            pins.circuit = ParseCircuit(parts.back());
        }
        if (pins.circuit) {
            parts.pop_back();
        }
    }
    const auto address = ParseAddress(parts);
    if (!address) {
        throw std::invalid_argument("not an ADDRESS or ADDRESS:PIN: " + text);
    }
    pins.address = *address;
    return pins;
}

uint32_t ParsePin(const std::string& text) {
    const PinRef pins = ParsePinRef(text);
    if (!pins.circuit) {
        throw std::invalid_argument(text + " is an address and names no pin");
    }
    return pins.Tags()[0];
}

bool IsNamedPin(uint32_t tag) {
    return FindCircuit(static_cast<uint8_t>(tag)) != nullptr;
}

bool IsInput(uint32_t tag) {
    return IsNamedPin(tag) && (tag & MAX_CIRCUIT) >= LOWEST_INPUT;
}

std::string AddressText(uint32_t address) {
    const std::string low = std::to_string(address & 0xFF);
    return address > 0xFF ? std::to_string(address >> 8) + ":" + low : low;
}

std::string PinText(uint32_t tag) {
    const uint8_t circuit = static_cast<uint8_t>(tag);
    const NamedCircuit* named = FindCircuit(circuit);
    return AddressText(tag >> 8) + ":" +
           (named != nullptr ? named->name : "c" + std::to_string(circuit));
}
