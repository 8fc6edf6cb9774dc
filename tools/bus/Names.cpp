#include "tools/bus/Names.h"

namespace {

template <typename Key>
const Names::Entry* Lookup(const std::vector<Names::Entry>& entries,
                           const std::map<Key, size_t>& places, const Key& key) {
    const auto place = places.find(key);
    return place == places.end() ? nullptr : &entries[place->second];
}

// A text that begins like a name, and not like a number.
bool LooksLikeName(const std::string& text) {
    return !text.empty() && (text[0] < '0' || text[0] > '9') && text[0] != ':' && text[0] != '-';
}

}  // namespace

void Names::Add(const Entry& entry) {
    if (Find(entry.name) != nullptr) {
        throw std::invalid_argument("the name " + entry.name + " is given twice");
    }
    auto& places = entry.pins.circuit ? m_by_tag : m_by_address;
    const uint32_t key = entry.pins.circuit ? entry.pins.Tags()[0] : entry.pins.address;
    if (const Entry* const other = Lookup(m_entries, places, key)) {
        throw std::invalid_argument("it already has a name: " + other->name);
    }
    places.emplace(key, m_entries.size());
    m_by_name.emplace(entry.name, m_entries.size());
    m_entries.push_back(entry);
}

const Names::Entry* Names::Find(const std::string& name) const {
    return Lookup(m_entries, m_by_name, name);
}

const Names::Entry* Names::OfPin(uint32_t tag) const {
    return Lookup(m_entries, m_by_tag, tag);
}

const Names::Entry* Names::OfAddress(uint32_t address) const {
    return Lookup(m_entries, m_by_address, address);
}

std::string Names::NameOf(uint32_t tag) const {
    if (const Entry* const pin = OfPin(tag)) {
        return pin->name;
    }
    const Entry* const address = OfAddress(tag >> 8);
    return address != nullptr ? address->name + ":" + CircuitText(static_cast<uint8_t>(tag)) : "";
}

std::string Names::Label(uint32_t tag) const {
    const std::string name = NameOf(tag);
    return PinText(tag) + (name.empty() ? "" : " (" + name + ")");
}

std::string Names::AddressLabel(uint32_t address) const {
    const Entry* const entry = OfAddress(address);
    return AddressText(address) + (entry != nullptr ? " (" + entry->name + ")" : "");
}

std::string Names::TextOf(uint32_t tag) const {
    const Entry* const pin = OfPin(tag);
    return pin != nullptr ? pin->text : "";
}

std::string Names::GroupOf(uint32_t tag) const {
    const Entry* const pin = OfPin(tag);
    const size_t dot = pin != nullptr ? pin->name.find('.') : std::string::npos;
    if (dot != std::string::npos) {
        return pin->name.substr(0, dot);
    }
    const Entry* const address = OfAddress(tag >> 8);
    return address != nullptr ? address->name : "";
}

PinRef Names::Parse(const std::string& text) const {
    if (const Entry* const entry = Find(text)) {
        return entry->pins;
    }
    const size_t colon = text.find(':');
    const std::string name = text.substr(0, colon);
    const Entry* const entry = colon == std::string::npos ? nullptr : Find(name);
    if (entry != nullptr) {
        if (entry->pins.circuit) {
            throw std::invalid_argument(name + " is a pin, and has none of its own: " + text);
        }
        return ParsePinRef(AddressText(entry->pins.address) + text.substr(colon));
    }
    if (LooksLikeName(text)) {
        throw std::invalid_argument(
            m_entries.empty()
                ? "not an ADDRESS or ADDRESS:PIN, and there are no names: " + text
                : "no name " + name + " in " + m_file + (name == text ? "" : ": " + text));
    }
    return ParsePinRef(text);
}

uint32_t Names::ParsePin(const std::string& text) const {
    const PinRef pins = Parse(text);
    if (!pins.circuit) {
        throw std::invalid_argument(text + " is an address and names no pin; add one of " +
                                    PIN_NAMES);
    }
    return pins.Tags()[0];
}
