// The rows of top: which pins, in which order, with which content.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/bus/Names.h"
#include "tools/bus/PinStates.h"

struct TopRow {
    uint32_t tag;
    std::optional<Level> level;
    PinStatus status;
    bool denied;
    bool seen_changing;
    TimePoint since;      // when the level was first heard; TimePoint::min(): not known
    TimePoint changed;    // last change of the level; TimePoint::min(): none was seen
    uint32_t writer = 0;  // the last one, host byte order; 0: none
};

enum class TopSort { Pin, Name, Level, Age, Writer };
const int TOP_SORTS = 5;

class TopTable {
public:
    explicit TopTable(const Names& names) : m_names(names) {}

    // Rows whose pin, name or writer contains the text, ignoring case; empty: all.
    void SetFilter(const std::string& filter);
    const std::string& Filter() const { return m_filter; }

    void SetSort(TopSort sort) { m_sort = sort; }
    TopSort Sort() const { return m_sort; }

    // Takes the current states.
    void Update(const PinStates& states);

    // Rebuilds the rows from the states taken last, by filter and order.
    void Arrange();
    const std::vector<TopRow>& Rows() const { return m_rows; }

    // "1:2:out1" and "studio1.onair", empty if it has no name.
    const std::string& PinOf(const TopRow& row) { return LabelOf(row.tag).pin; }
    const std::string& NameOf(const TopRow& row) { return LabelOf(row.tag).name; }

    // One flat object, as for any pin, with "state", "denied" if true, and "writer", the host that
    // wrote it last, or null. Its "time" and "host" are those of the level.
    std::string ToJson(const PinState& state, uint32_t tag) const;

private:
    struct Label {
        std::string pin;
        std::string name;
        std::string search;  // both, in lower case
    };

    const Label& LabelOf(uint32_t tag);
    bool Matches(const TopRow& row);
    void Order();

    const Names& m_names;
    std::string m_filter;
    std::string m_search;  // the filter in lower case
    TopSort m_sort = TopSort::Pin;
    std::vector<TopRow> m_all;           // as taken, in the order of the pins
    std::vector<TopRow> m_rows;          // those that are shown
    std::map<uint32_t, Label> m_labels;  // one for each pin
};

const char* SortText(TopSort sort);
const char* StatusText(const TopRow& row);

// How long the level has been known: "0.4s", "12s", "5m03s", "2h10m", "3d04h"; after a '>' if it
// may be longer.
std::string AgeText(const TopRow& row, TimePoint now);
