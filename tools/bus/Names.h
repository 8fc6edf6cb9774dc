// The names that people give to addresses and pins.
//
// A file has one name per line, with an optional text:
//
//     # studio 1
//     1:2       studio1        "Studio 1"
//     1:2:out3  studio1.onair  "Studio 1 on air"
//
// A name consists of letters, digits, '.', '_' and '-' and begins with a letter; non-ASCII
// characters count as letters. A pin without a name of its own uses that of its address:
// studio1:in2. The text is in double quotes, in which \" is a quote and \\ a backslash.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/bus/PinName.h"

// A file that can't be read or has errors: "/etc/orvex/names:3: ..."
struct NamesError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Names {
public:
    struct Entry {
        PinRef pins;  // an address, or one pin
        std::string name;
        std::string text;  // empty: none. UTF-8 without control characters
    };

    // No names.
    Names() = default;

    // Reads that file. Throws a NamesError.
    static Names Read(const std::string& file);

    // Reads the user's names: the given file, or if that is empty the one in the environment
    // (ORVEX_NAMES), or else /etc/orvex/names, which need not exist. Throws a NamesError.
    static Names Load(const std::string& file);

    // Throws std::invalid_argument if the name or the pin has been given before.
    void Add(const Entry& entry);

    // In the order of the file.
    const std::vector<Entry>& All() const { return m_entries; }

    // Null if there is none.
    const Entry* Find(const std::string& name) const;
    const Entry* OfPin(uint32_t tag) const;
    const Entry* OfAddress(uint32_t address) const;

    // "studio1.onair" or "studio1:in2"; empty if neither pin nor address has a name.
    std::string NameOf(uint32_t tag) const;

    // "1:2:out3 (studio1.onair)", for messages; without a name only the pin.
    std::string Label(uint32_t tag) const;

    // The same of an address: "1:2 (studio1)".
    std::string AddressLabel(uint32_t address) const;

    // "Studio 1 on air"; empty if the pin has none.
    std::string TextOf(uint32_t tag) const;

    // The group with which a pin is shown: the part before the first '.' of its name, else the name
    // of its address. Empty if there is neither.
    std::string GroupOf(uint32_t tag) const;

    // Reads a name, "name:PIN", or what ParsePinRef() accepts. Throws std::invalid_argument with
    // the reason.
    PinRef Parse(const std::string& text) const;

    // The same for exactly one pin; returns its tag.
    uint32_t ParsePin(const std::string& text) const;

private:
    std::vector<Entry> m_entries;
    std::string m_file;                       // their source, for messages
    std::map<std::string, size_t> m_by_name;  // indices in m_entries
    std::map<uint32_t, size_t> m_by_tag;
    std::map<uint32_t, size_t> m_by_address;
};
