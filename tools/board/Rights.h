// What somebody may do on the board.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "tools/bus/Names.h"

// Pins by their own number or name, by their address or its name, or by the group in which they are
// shown; or all pins.
class PinChoice {
public:
    static PinChoice All();

    // "studio1,1:3,1:4:out2". Throws std::invalid_argument.
    static PinChoice Parse(const std::string& text);

    bool Has(uint32_t tag, const Names& names) const;
    bool IsAll() const { return m_all; }
    bool IsNone() const { return !m_all && m_words.empty(); }
    // As it was written; "" for all.
    std::string Text() const;
    // Words that choose nothing, because they are no numbers and nothing has that name.
    std::set<std::string> Unknown(const Names& names) const;

private:
    bool m_all = false;
    std::set<std::string> m_words;  // numbers in one form
};

// Who may set a pin may read it too.
class Rights {
public:
    static Rights All();

    // "read", "set", both also with pins ("set=studio1,1:3"), or "edit". Throws
    // std::invalid_argument.
    void Add(const std::string& word);

    bool MayRead(uint32_t tag, const Names& names) const {
        return m_read.Has(tag, names) || MaySet(tag, names);
    }
    bool MayReadAll() const { return m_read.IsAll() || m_set.IsAll(); }
    bool MayReadAny() const { return !m_read.IsNone() || !m_set.IsNone(); }
    bool MaySet(uint32_t tag, const Names& names) const { return m_set.Has(tag, names); }
    bool MaySetAny() const { return !m_set.IsNone(); }
    bool MaySetAll() const { return m_set.IsAll(); }
    bool MayEdit() const { return m_edit; }

    // "read set=studio1"
    std::string Text() const;
    std::set<std::string> Unknown(const Names& names) const;

private:
    PinChoice m_read;
    PinChoice m_set;
    bool m_edit = false;
};
