#include "tools/top/TopTable.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>

#include "tools/bus/Interface.h"
#include "tools/bus/StateJson.h"

namespace {

std::string Small(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

TopRow MakeRow(uint32_t tag, const PinState& state) {
    TopRow row = {};
    row.tag = tag;
    row.level = state.level;
    row.status = state.status;
    row.denied = state.denied;
    row.seen_changing = state.seen_changing;
    row.since = state.since ? state.since->at : TimePoint::min();
    row.changed = state.seen_changing ? row.since : TimePoint::min();
    row.writer = state.written ? state.written->host : 0;
    return row;
}

}  // namespace

const char* SortText(TopSort sort) {
    const char* const texts[] = {"pin", "name", "level", "age", "writer"};
    return texts[static_cast<size_t>(sort)];
}

const char* StatusText(const TopRow& row) {
    switch (row.status) {
        case PinStatus::Told:
            return "told";
        case PinStatus::Written:
            return row.denied ? "denied" : "written";
        default:
            return "unknown";
    }
}

std::string AgeText(const TopRow& row, TimePoint now) {
    if (row.since == TimePoint::min()) {
        return "-";
    }
    const double seconds = std::chrono::duration<double>(now - row.since).count();
    const long whole = static_cast<long>(seconds);
    const char* const begin = row.seen_changing ? "" : ">";
    char text[32];
    if (seconds < 10) {
        snprintf(text, sizeof text, "%s%.1fs", begin, std::max(seconds, 0.0));
    } else if (whole < 60) {
        snprintf(text, sizeof text, "%s%lds", begin, whole);
    } else if (whole < 3600) {
        snprintf(text, sizeof text, "%s%ldm%02lds", begin, whole / 60, whole % 60);
    } else if (whole < 86400) {
        snprintf(text, sizeof text, "%s%ldh%02ldm", begin, whole / 3600, whole / 60 % 60);
    } else {
        snprintf(text, sizeof text, "%s%ldd%02ldh", begin, whole / 86400, whole / 3600 % 24);
    }
    return text;
}

void TopTable::SetFilter(const std::string& filter) {
    m_filter = filter;
    m_search = Small(filter);
}

// By address, then in1 to in5 and out1 to out5: circuits count down. This decides between equal
// rows of other orders.
void TopTable::Update(const PinStates& states) {
    m_all.clear();
    states.ForEach(
        [this](uint32_t tag, const PinState& state) { m_all.push_back(MakeRow(tag, state)); });
    std::sort(m_all.begin(), m_all.end(),
              [](const TopRow& a, const TopRow& b) { return (a.tag ^ 0xFF) < (b.tag ^ 0xFF); });
}

void TopTable::Arrange() {
    m_rows.clear();
    std::copy_if(m_all.begin(), m_all.end(), std::back_inserter(m_rows),
                 [this](const TopRow& row) { return Matches(row); });
    Order();
}

std::string TopTable::ToJson(const PinState& state, uint32_t tag) const {
    return Dump(TopJson(tag, state, m_names));
}

const TopTable::Label& TopTable::LabelOf(uint32_t tag) {
    auto found = m_labels.find(tag);
    if (found == m_labels.end()) {
        Label label = {PinText(tag), m_names.NameOf(tag), {}};
        label.search = Small(label.pin + " " + label.name + " " + m_names.TextOf(tag));
        found = m_labels.emplace(tag, std::move(label)).first;
    }
    return found->second;
}

bool TopTable::Matches(const TopRow& row) {
    return m_search.empty() || LabelOf(row.tag).search.find(m_search) != std::string::npos ||
           (row.writer != 0 && HostText(row.writer).find(m_search) != std::string::npos);
}

void TopTable::Order() {
    switch (m_sort) {
        case TopSort::Pin:
            break;
        case TopSort::Name:
            std::stable_sort(
                m_rows.begin(), m_rows.end(), [this](const TopRow& a, const TopRow& b) {
                    const std::string& first = NameOf(a);
                    const std::string& second = NameOf(b);
                    return first.empty() != second.empty() ? second.empty() : first < second;
                });
            break;
        case TopSort::Level:
            std::stable_sort(m_rows.begin(), m_rows.end(), [](const TopRow& a, const TopRow& b) {
                return (a.level == Level::Low) > (b.level == Level::Low);
            });
            break;
        case TopSort::Age:
            std::stable_sort(m_rows.begin(), m_rows.end(), [](const TopRow& a, const TopRow& b) {
                return a.changed > b.changed;
            });
            break;
        case TopSort::Writer:
            std::stable_sort(m_rows.begin(), m_rows.end(), [](const TopRow& a, const TopRow& b) {
                return a.writer - 1 < b.writer - 1;  // none last
            });
            break;
    }
}
