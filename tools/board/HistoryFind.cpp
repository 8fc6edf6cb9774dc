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
    event.duration = static_cast<uint32_t>(sqlite3_column_int64(row, 5));
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
    if (!ReadEvents(query, answer) || !ReadEarlier(query, answer) || !ReadGaps(query, answer)) {
        Trouble();
        Recover(now);
        return std::nullopt;
    }
    return answer;
}

// In the order of time, for which there are indexes: of events with one time, of the numbers.
bool History::ReadEvents(const Query& query, Answer& answer) {
    const unsigned limit = std::min(query.limit, MAX_ROWS);
    int64_t until = query.until;
    if (query.before_id != std::numeric_limits<int64_t>::max()) {
        const Statement row = Compile("SELECT time FROM events WHERE id >= ?1 ORDER BY id LIMIT 1");
        sqlite3_bind_int64(row.get(), 1, query.before_id);
        if (row && sqlite3_step(row.get()) == SQLITE_ROW) {
            until = std::min<int64_t>(until, sqlite3_column_int64(row.get(), 0));
        }
    }
    std::string sql = std::string("SELECT ") + COLUMNS + " FROM events WHERE ";
    sql += query.tag ? "tag = ?1 AND " : "";
    sql += "time BETWEEN ?2 AND ?3 AND (time < ?3 OR id < ?4) ORDER BY time DESC, id DESC LIMIT ?5";
    const Statement rows = Compile(sql.c_str());
    if (!rows) {
        return false;
    }
    sqlite3_bind_int64(rows.get(), 1, query.tag.value_or(0));
    sqlite3_bind_int64(rows.get(), 2, query.from);
    sqlite3_bind_int64(rows.get(), 3, until);
    sqlite3_bind_int64(rows.get(), 4, query.before_id);
    sqlite3_bind_int64(rows.get(), 5, static_cast<int64_t>(limit) + 1);
    while ((m_code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        if (answer.events.size() == limit) {
            answer.more = true;
            break;
        }
        answer.events.push_back(EventOf(rows.get()));
    }
    return m_code == SQLITE_ROW || m_code == SQLITE_DONE;
}

// The beginning of a timeline. If the limit omitted rows, it is before them, not before `from`.
bool History::ReadEarlier(const Query& query, Answer& answer) {
    if (!query.tag || answer.more) {
        return true;
    }
    const Statement row = Compile((std::string("SELECT ") + COLUMNS +
                                   " FROM events WHERE tag = ?1 AND time < ?2 AND kind = 1 ORDER "
                                   "BY time DESC, id DESC LIMIT 1")
                                      .c_str());
    if (!row) {
        return false;
    }
    sqlite3_bind_int64(row.get(), 1, *query.tag);
    sqlite3_bind_int64(row.get(), 2, query.from);
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
