#include "tools/board/Rights.h"

#include <stdexcept>

namespace {

bool IsNumber(const std::string& word) {
    return word[0] >= '0' && word[0] <= '9';
}

// Numbers have several forms: 0x102 and 1:2 are one address.
std::string OneForm(const std::string& word) {
    if (!IsNumber(word)) {
        return word;
    }
    const PinRef pins = ParsePinRef(word);
    return pins.circuit ? PinText(pins.address << 8 | *pins.circuit) : AddressText(pins.address);
}

}  // namespace

PinChoice PinChoice::All() {
    PinChoice choice;
    choice.m_all = true;
    return choice;
}

PinChoice PinChoice::Parse(const std::string& text) {
    PinChoice choice;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        if (begin == end) {
            throw std::invalid_argument("no pins between the commas: " + text);
        }
        choice.m_words.insert(OneForm(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    return choice;
}

bool PinChoice::Has(uint32_t tag, const Names& names) const {
    if (m_all || m_words.empty()) {
        return m_all;
    }
    const Names::Entry* const pin = names.OfPin(tag);
    const Names::Entry* const address = names.OfAddress(tag >> 8);
    return m_words.count(PinText(tag)) != 0 || m_words.count(AddressText(tag >> 8)) != 0 ||
           m_words.count(names.GroupOf(tag)) != 0 ||
           (pin != nullptr && m_words.count(pin->name) != 0) ||
           (address != nullptr && m_words.count(address->name) != 0);
}

std::string PinChoice::Text() const {
    std::string text;
    for (const std::string& word : m_words) {
        text += (text.empty() ? "" : ",") + word;
    }
    return text;
}

std::set<std::string> PinChoice::Unknown(const Names& names) const {
    std::set<std::string> unknown;
    for (const std::string& word : m_words) {
        bool known = IsNumber(word);
        for (const Names::Entry& entry : names.All()) {
            known = known || entry.name == word ||
                    entry.name.compare(0, word.size() + 1, word + ".") == 0;
        }
        if (!known) {
            unknown.insert(word);
        }
    }
    return unknown;
}

Rights Rights::All() {
    Rights rights;
    rights.m_read = PinChoice::All();
    rights.m_set = PinChoice::All();
    rights.m_edit = true;
    return rights;
}

void Rights::Add(const std::string& word) {
    const size_t equals = word.find('=');
    const std::string what = word.substr(0, equals);
    const bool has_pins = equals != word.npos;
    if (what == "edit" && !has_pins) {
        m_edit = true;
    } else if (what == "read" || what == "set") {
        PinChoice& choice = what == "read" ? m_read : m_set;
        choice = has_pins ? PinChoice::Parse(word.substr(equals + 1)) : PinChoice::All();
    } else {
        throw std::invalid_argument("not a right (read, set or edit; read=PINS, set=PINS): " +
                                    word);
    }
}

std::string Rights::Text() const {
    std::string text;
    for (const auto& [what, choice] : {std::pair("read", &m_read), std::pair("set", &m_set)}) {
        if (!choice->IsNone()) {
            text += (text.empty() ? "" : " ") + std::string(what);
            text += choice->IsAll() ? "" : "=" + choice->Text();
        }
    }
    return text + (m_edit ? text.empty() ? "edit" : " edit" : "");
}

std::set<std::string> Rights::Unknown(const Names& names) const {
    std::set<std::string> unknown = m_read.Unknown(names);
    unknown.merge(m_set.Unknown(names));
    return unknown;
}
