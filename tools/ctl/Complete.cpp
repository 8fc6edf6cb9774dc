#include "tools/ctl/Complete.h"

#include <stdexcept>

#include "tools/bus/PinName.h"

namespace {

using Words = std::vector<std::string>;

void AddIfBegun(Words& words, const std::string& prefix, const std::string& word) {
    if (word.compare(0, prefix.size(), prefix) == 0) {
        words.push_back(word);
    }
}

// The pins of the address before the last colon.
void AddPinsOf(Words& words, const std::string& prefix, const std::string& end,
               const Names& names) {
    const std::string address = prefix.substr(0, prefix.rfind(':'));
    try {
        const PinRef pins = names.Parse(address);
        if (!pins.circuit) {
            for (const uint32_t tag : pins.Tags()) {
                AddIfBegun(words, prefix,
                           address + ":" + CircuitText(static_cast<uint8_t>(tag)) + end);
            }
        }
    } catch (const std::invalid_argument&) {
        // Not an address yet.
    }
}

}  // namespace

std::vector<std::string> CompletePins(const std::string& prefix, const std::string& kind,
                                      const Names& names) {
    Words words;
    const bool levels = kind == "level";
    const bool addresses = kind == "address";
    const size_t equals = prefix.find('=');
    if (levels && equals != std::string::npos) {
        for (const char* level : {"L", "H", "low", "high"}) {
            AddIfBegun(words, prefix, prefix.substr(0, equals + 1) + level);
        }
        return words;
    }
    for (const Names::Entry& entry : names.All()) {
        const char* const end = !levels ? "" : entry.pins.circuit ? "=" : ":";
        if (!addresses || !entry.pins.circuit) {
            AddIfBegun(words, prefix, entry.name + end);
        }
    }
    if (!addresses && prefix.find(':') != std::string::npos) {
        AddPinsOf(words, prefix, levels ? "=" : "", names);
    }
    return words;
}
