// The names that people have given to addresses and pins.
//
// A file has one name a line, with a text that may be left out:
//
//     # studio 1
//     1:2       studio1        "Studio 1"
//     1:2:out3  studio1.onair  "Studio 1 on air"
//
// A name is made of letters, digits, '.', '_' and '-' and begins with a letter; what is no ASCII
// counts as letters. A pin without a name of its own has that of its address and its own:
// studio1:in2. The text is in double quotes, in which \" is a quote and \\ a backslash.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/bus/PinName.h"

// A file that can't be read or does not hold names: "/etc/orvex/names:3: ..."
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

    // Knows no names.
    Names() = default;

    // Reads that file. Throws a NamesError.
    static Names Read(const std::string& file);

    // Reads what the user has named: the file, or when that is empty the one in the environment
    // (ORVEX_NAMES), or else /etc/orvex/names, which need not be there. Throws a NamesError.
    static Names Load(const std::string& file);

    // Throws std::invalid_argument when the name or the pin has been given before.
    void Add(const Entry& entry);

    // In the order of the file.
    const std::vector<Entry>& All() const { return m_entries; }

    // Null when there is none.
    const Entry* Find(const std::string& name) const;
    const Entry* OfPin(uint32_t tag) const;
    const Entry* OfAddress(uint32_t address) const;

    // "studio1.onair" or "studio1:in2"; empty when neither pin nor address has a name.
    std::string NameOf(uint32_t tag) const;

    // "1:2:out3 (studio1.onair)", for messages; without a name the pin alone.
    std::string Label(uint32_t tag) const;

    // "Studio 1 on air"; empty when the pin has none.
    std::string TextOf(uint32_t tag) const;

    // What a pin is shown with: what stands before the first '.' of its name, else the name of its
    // address. Empty when there is neither.
    std::string GroupOf(uint32_t tag) const;

    // Reads a name, "name:PIN", or what ParsePinRef() reads. Throws std::invalid_argument with the
    // reason.
    PinRef Parse(const std::string& text) const;

    // The same for exactly one pin; returns its tag.
    uint32_t ParsePin(const std::string& text) const;

private:
    std::vector<Entry> m_entries;
    std::string m_file;                       // where they come from, for messages
    std::map<std::string, size_t> m_by_name;  // places in m_entries
    std::map<uint32_t, size_t> m_by_tag;
    std::map<uint32_t, size_t> m_by_address;
};
