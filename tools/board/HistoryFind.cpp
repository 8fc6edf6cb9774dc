// Reads the history.
#include <sqlite3.h>

#include <algorithm>
#include <limits>

#include "tools/board/History.h"

namespace {

const char* const COLUMNS = "id, time, kind, tag, low, duration, host, text";

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

std::optional<History::Answer> History::Find(const Query& query, int64_t now) {
    Answer answer;
    if (!m_db) {
        return std::nullopt;
    }
    if (!ReadSetBacks(answer) || !ReadEvents(query, answer) || !ReadGaps(query, answer)) {
        Trouble();
        Recover(now);
        return std::nullopt;
    }
    return answer;
}

bool History::ReadSetBacks(Answer& answer) {
    const Statement rows = Compile((std::string("SELECT ") + COLUMNS +
                                    " FROM events WHERE kind = 9 ORDER BY id DESC LIMIT 100")
                                       .c_str());
    while (rows && (m_code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        answer.set_backs.push_back(EventOf(rows.get()));
    }
    return rows && m_code == SQLITE_DONE;
}

// In parts, the newest first: each begins where the clock was set back. Within a part, the order of
// events is nearly that of their times, for which there is an index.
bool History::ReadEvents(const Query& query, Answer& answer) {
    std::vector<int64_t> begins;
    for (const Event& event : answer.set_backs) {
        begins.push_back(event.id);
    }
    begins.push_back(0);
    Part part;
    part.end = query.before_id;
    int64_t before = part.end;  // what was earlier
    for (const int64_t begin : begins) {
        if (begin >= part.end || answer.more) {
            continue;
        }
        part.begin = begin;
        const Part narrow = NarrowTo(part, query);
        if (!ReadPart(narrow, query, answer)) {
            return false;
        }
        before = std::min(before, narrow.end);
        part.end = begin;
    }
    before = answer.events.empty() ? before : answer.events.back().id;
    // If the limit omitted rows, the beginning of a timeline is before them, not before `from`.
    return !query.tag || answer.more || ReadEarlier(before, query, answer);
}

// Without the events that are certainly earlier or later than the query's times.
History::Part History::NarrowTo(Part part, const Query& query) {
    const auto find = [&](const char* sql, int64_t time, int64_t otherwise) {
        const Statement row = Compile(sql);
        sqlite3_bind_int64(row.get(), 1, part.begin);
        sqlite3_bind_int64(row.get(), 2, part.end);
        sqlite3_bind_int64(row.get(), 3, time);
        return row && sqlite3_step(row.get()) == SQLITE_ROW ? sqlite3_column_int64(row.get(), 0)
                                                            : otherwise;
    };
    Part narrow = part;
    if (query.from > SET_BACK) {
        narrow.begin = find(
            "SELECT id FROM events WHERE +id >= ?1 AND +id < ?2 AND time < ?3"
            " ORDER BY time DESC LIMIT 1",
            query.from - SET_BACK, part.begin);
    }
    if (query.until < std::numeric_limits<int64_t>::max() - SET_BACK) {
        narrow.end = find(
            "SELECT id FROM events WHERE +id >= ?1 AND +id < ?2 AND time > ?3"
            " ORDER BY time LIMIT 1",
            query.until + SET_BACK, part.end);
    }
    return narrow;
}

bool History::ReadPart(const Part& part, const Query& query, Answer& answer) {
    const unsigned limit = std::min(query.limit, MAX_ROWS);
    std::string sql = std::string("SELECT ") + COLUMNS + " FROM events WHERE ";
    sql += query.tag ? "tag = ?1 AND " : "";
    sql += "id >= ?2 AND id < ?3 AND +time BETWEEN ?4 AND ?5 ORDER BY id DESC LIMIT ?6";
    const Statement rows = Compile(sql.c_str());
    if (!rows) {
        return false;
    }
    sqlite3_bind_int64(rows.get(), 1, query.tag.value_or(0));
    sqlite3_bind_int64(rows.get(), 2, part.begin);
    sqlite3_bind_int64(rows.get(), 3, part.end);
    sqlite3_bind_int64(rows.get(), 4, query.from);
    sqlite3_bind_int64(rows.get(), 5, query.until);
    sqlite3_bind_int64(rows.get(), 6, MAX_LOOKS);
    unsigned looks = 0;
    while ((m_code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        if (answer.events.size() == limit) {
            answer.more = true;
            break;
        }
        Event event = EventOf(rows.get());
        answer.last_id = event.id;
        answer.more = ++looks == MAX_LOOKS;
        if (!query.fits || query.fits(event)) {
            answer.events.push_back(std::move(event));
        }
    }
    return m_code == SQLITE_ROW || m_code == SQLITE_DONE;
}

bool History::ReadEarlier(int64_t before_id, const Query& query, Answer& answer) {
    const Statement row = Compile((std::string("SELECT ") + COLUMNS +
                                   " FROM events WHERE tag = ?1 AND id < ?2 AND kind = 1 AND "
                                   "+time < ?3 ORDER BY id DESC LIMIT 1")
                                      .c_str());
    if (!row) {
        return false;
    }
    sqlite3_bind_int64(row.get(), 1, *query.tag);
    sqlite3_bind_int64(row.get(), 2, before_id);
    sqlite3_bind_int64(row.get(), 3, query.from);
    m_code = sqlite3_step(row.get());
    if (m_code == SQLITE_ROW) {
        answer.earlier = EventOf(row.get());
    }
    return m_code == SQLITE_ROW || m_code == SQLITE_DONE;
}

bool History::ReadGaps(const Query& query, Answer& answer) {
    const Statement rows = Compile(
        "SELECT time, kind, text FROM (SELECT id, time, kind, text FROM events WHERE kind IN (7, 8)"
        " ORDER BY id DESC LIMIT 2000) ORDER BY id");
    std::vector<Gap> gaps;
    while (rows && (m_code = sqlite3_step(rows.get())) == SQLITE_ROW) {
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
    if (!rows || m_code != SQLITE_DONE) {
        return false;
    }
    // A state told before a gap is not known after it.
    for (const Gap& gap : gaps) {
        if (answer.earlier && gap.from >= answer.earlier->time && gap.from < query.from) {
            answer.earlier.reset();
        }
    }
    std::copy_if(gaps.begin(), gaps.end(), std::back_inserter(answer.gaps), [&](const Gap& gap) {
        return gap.from <= query.until && gap.until.value_or(query.until) >= query.from;
    });
    return true;
}
