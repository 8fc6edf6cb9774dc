#include "tools/board/HistorySearch.h"

#include <sqlite3.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

const std::string SELECT =
    "SELECT id, time, kind, tag, low, duration, host, text FROM events WHERE ";

std::string TextOf(sqlite3_stmt* statement, int column) {
    const unsigned char* const text = sqlite3_column_text(statement, column);
    return text == nullptr ? "" : reinterpret_cast<const char*>(text);
}

Event EventOf(sqlite3_stmt* row) {
    Event event;
    event.id = sqlite3_column_int64(row, 0);
    event.time = sqlite3_column_int64(row, 1);
    event.kind = static_cast<EventKind>(sqlite3_column_int(row, 2));
    if (sqlite3_column_type(row, 3) != SQLITE_NULL) {
        event.tag = static_cast<uint32_t>(sqlite3_column_int64(row, 3));
    }
    if (sqlite3_column_type(row, 4) != SQLITE_NULL) {
        event.low = sqlite3_column_int(row, 4) != 0;
    }
    event.duration = sqlite3_column_int64(row, 5);
    event.host = TextOf(row, 6);
    event.text = TextOf(row, 7);
    return event;
}

}  // namespace

std::optional<HistorySearch::Answer> HistorySearch::Find() {
    if (!ReadSetBacks() || !ReadEvents() || !AddGaps()) {
        return std::nullopt;
    }
    return std::move(m_answer);
}

bool HistorySearch::ReadSetBacks() {
    const Database::Statement rows = m_db.Compile(SELECT + "kind = 9 ORDER BY id DESC LIMIT 100");
    while (m_db.Next(rows)) {
        m_answer.set_backs.push_back(EventOf(rows.get()));
    }
    return !m_db.Failed();
}

// In parts, the newest first: each begins where the clock was set back. Within a part, the order of
// events is nearly that of their times, for which there is an index.
bool HistorySearch::ReadEvents() {
    std::vector<int64_t> begins;
    for (const Event& event : m_answer.set_backs) {
        begins.push_back(event.id);
    }
    begins.push_back(0);
    Part part;
    part.end = m_query.before_id;
    int64_t before = part.end;  // what was earlier
    for (const int64_t begin : begins) {
        if (begin >= part.end || m_answer.more) {
            continue;
        }
        part.begin = begin;
        const Part narrow = NarrowTo(part);
        if (!ReadPart(narrow)) {
            return false;
        }
        before = std::min(before, narrow.end);
        part.end = begin;
    }
    before = m_answer.events.empty() ? before : m_answer.events.back().id;
    // If the limit omitted rows, the beginning of a timeline is before them, not before `from`.
    return !m_query.tag || m_answer.more || ReadEarlier(before);
}

// Without the events that are certainly earlier or later than the query's times.
HistorySearch::Part HistorySearch::NarrowTo(Part part) {
    const auto find = [&](const char* sql, int64_t time, int64_t otherwise) {
        const Database::Statement row = m_db.Compile(sql);
        sqlite3_bind_int64(row.get(), 1, part.begin);
        sqlite3_bind_int64(row.get(), 2, part.end);
        sqlite3_bind_int64(row.get(), 3, time);
        return m_db.Next(row) ? sqlite3_column_int64(row.get(), 0) : otherwise;
    };
    Part narrow = part;
    if (m_query.from > SET_BACK_MS) {
        narrow.begin = find(
            "SELECT id FROM events WHERE +id >= ?1 AND +id < ?2 AND time < ?3"
            " ORDER BY time DESC LIMIT 1",
            m_query.from - SET_BACK_MS, part.begin);
    }
    if (m_query.until < std::numeric_limits<int64_t>::max() - SET_BACK_MS) {
        narrow.end = find(
            "SELECT id FROM events WHERE +id >= ?1 AND +id < ?2 AND time > ?3"
            " ORDER BY time LIMIT 1",
            m_query.until + SET_BACK_MS, part.end);
    }
    return narrow;
}

bool HistorySearch::ReadPart(const Part& part) {
    const unsigned limit = std::min(m_query.limit, MAX_ROWS);
    const Database::Statement rows =
        m_db.Compile(SELECT + (m_query.tag ? "tag = ?1 AND " : "") +
                     "id >= ?2 AND id < ?3 AND +time BETWEEN ?4 AND ?5 ORDER BY id DESC LIMIT ?6");
    sqlite3_bind_int64(rows.get(), 1, m_query.tag.value_or(0));
    sqlite3_bind_int64(rows.get(), 2, part.begin);
    sqlite3_bind_int64(rows.get(), 3, part.end);
    sqlite3_bind_int64(rows.get(), 4, m_query.from);
    sqlite3_bind_int64(rows.get(), 5, m_query.until);
    sqlite3_bind_int64(rows.get(), 6, MAX_LOOKS);
    for (unsigned looks = 0; m_db.Next(rows);) {
        if (m_answer.events.size() == limit) {
            m_answer.more = true;
            break;
        }
        Event event = EventOf(rows.get());
        m_answer.last_id = event.id;
        m_answer.more = ++looks == MAX_LOOKS;
        if (!m_query.fits || m_query.fits(event)) {
            m_answer.events.push_back(std::move(event));
        }
    }
    return !m_db.Failed();
}

bool HistorySearch::ReadEarlier(int64_t before_id) {
    const Database::Statement row = m_db.Compile(
        SELECT + "tag = ?1 AND id < ?2 AND kind = 1 AND +time < ?3 ORDER BY id DESC LIMIT 1");
    sqlite3_bind_int64(row.get(), 1, *m_query.tag);
    sqlite3_bind_int64(row.get(), 2, before_id);
    sqlite3_bind_int64(row.get(), 3, m_query.from);
    if (m_db.Next(row)) {
        m_answer.earlier = EventOf(row.get());
    }
    return !m_db.Failed();
}

bool HistorySearch::AddGaps() {
    const std::optional<std::vector<Gap>> gaps = ReadGaps(m_db);
    if (!gaps) {
        return false;
    }
    std::optional<Event>& earlier = m_answer.earlier;
    for (const Gap& gap : *gaps) {
        // A state told before a gap is not known after it.
        if (earlier && gap.from >= earlier->time && gap.from < m_query.from) {
            earlier.reset();
        }
        if (gap.from <= m_query.until && gap.until.value_or(m_query.until) >= m_query.from) {
            m_answer.gaps.push_back(gap);
        }
    }
    return true;
}

std::optional<std::vector<Gap>> HistorySearch::ReadGaps(Database& db) {
    const Database::Statement rows = db.Compile(
        "SELECT time, kind, text FROM (SELECT id, time, kind, text FROM events WHERE kind IN (7, 8)"
        " ORDER BY id DESC LIMIT 2000) ORDER BY id");
    std::vector<Gap> gaps;
    while (db.Next(rows)) {
        const int64_t time = sqlite3_column_int64(rows.get(), 0);
        const std::string reason = TextOf(rows.get(), 2);
        if (sqlite3_column_int(rows.get(), 1) == static_cast<int>(EventKind::GapBegin)) {
            gaps.push_back({time, std::nullopt, reason});
            continue;
        }
        const auto open = std::find_if(gaps.rbegin(), gaps.rend(), [&](const Gap& gap) {
            return !gap.until && gap.reason == reason;
        });
        if (open != gaps.rend()) {
            open->until = time;
        }
    }
    return db.Failed() ? std::nullopt : std::optional(std::move(gaps));
}
