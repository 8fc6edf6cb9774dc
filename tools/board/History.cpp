#include "tools/board/History.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

const int APPLICATION_ID = 0x6F727662;  // "orvb", in the header of the file
const int64_t RETRY_AFTER = 2000;       // ms
const int DROP_AT_ONCE = 2000;          // rows, so that dropping never takes long

const char* const NOT_RUNNING = "the board was not running";
const char* const NOT_WRITTEN = "the history could not be written";

const char* const SCHEMA =
    "CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, tag INTEGER, low INTEGER, duration INTEGER, host TEXT, text TEXT);"
    "CREATE INDEX IF NOT EXISTS events_pin ON events(tag, time) WHERE tag IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS events_time ON events(time);"
    "CREATE INDEX IF NOT EXISTS events_gap ON events(kind) WHERE kind IN (7, 8);"
    "CREATE TABLE IF NOT EXISTS alive(one INTEGER PRIMARY KEY CHECK (one = 1), time INTEGER);";

const char* const COLUMNS = "id, time, kind, tag, low, duration, host, text";

void BindText(sqlite3_stmt* statement, int column, const std::string& text) {
    if (text.empty()) {
        sqlite3_bind_null(statement, column);
    } else {
        sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }
}

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

int64_t Monotonic() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

void History::CloseDatabase::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

void History::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

History::History(HistorySettings settings) : m_settings(std::move(settings)) {}

History::~History() = default;

// ---- opening ----

void History::Open(int64_t now) {
    if (!OpenFile()) {
        Recover(now);
    }
    if (m_db) {
        NoteStart(now);
    }
}

bool History::OpenFile() {
    sqlite3* db = nullptr;
    const char* const name = IsInMemory() ? ":memory:" : m_settings.file.c_str();
    m_code = sqlite3_open_v2(name, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    m_db.reset(db);
    if (m_code != SQLITE_OK || !Prepare()) {
        Trouble();
        return false;
    }
    m_next = Number("SELECT max(id) FROM events") + 1;
    m_rows = Number("SELECT count(*) FROM events");
    m_oldest = Number("SELECT min(time) FROM events");
    if (m_code != SQLITE_ROW) {
        Trouble();
        return false;
    }
    for (Event& event : m_waiting) {
        event.id = m_next++;
    }
    m_problem.clear();
    return true;
}

// A file with tables in it that we did not make is not for us to write to.
bool History::Prepare() {
    sqlite3_busy_timeout(m_db.get(), 0);
    const int64_t id = Number("PRAGMA application_id");
    if (m_code != SQLITE_ROW) {
        return false;
    }
    if (id != APPLICATION_ID && Number("SELECT count(*) FROM sqlite_master") > 0) {
        m_foreign = true;
        return false;
    }
    char set_id[64];
    snprintf(set_id, sizeof set_id, "PRAGMA application_id=%d", APPLICATION_ID);
    // Without waiting for the disk at every commit: a killed program loses nothing by that, a
    // machine without power at most the last seconds.
    if (!Run("PRAGMA journal_mode=WAL") || !Run("PRAGMA synchronous=NORMAL") ||
        !Run("PRAGMA cache_size=-2000") || !Run("PRAGMA journal_size_limit=8388608") ||
        (id != APPLICATION_ID && !Run(set_id)) || !Run(SCHEMA)) {
        return false;
    }
    m_insert = Compile("INSERT INTO events VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    m_alive = Compile("INSERT INTO alive VALUES(1, ?1) ON CONFLICT DO UPDATE SET time = ?1");
    return m_insert && m_alive;
}

// The board may have been killed with a gap open.
void History::NoteStart(int64_t now) {
    const int64_t alive = std::max(Number("SELECT time FROM alive"),
                                   Number("SELECT time FROM events ORDER BY id DESC LIMIT 1"));
    if (alive == 0) {
        return;
    }
    Answer answer;
    ReadGaps({}, answer);
    for (const Gap& gap : answer.gaps) {
        if (!gap.until) {
            Event end;
            end.time = alive;
            end.kind = EventKind::GapEnd;
            end.text = gap.reason;
            Add(end);
        }
    }
    Event event;
    event.text = NOT_RUNNING;
    event.time = std::min(alive, now);
    event.kind = EventKind::GapBegin;
    Add(event);
    event.time = now;
    event.kind = EventKind::GapEnd;
    Add(event);
}

bool History::Run(const char* sql) {
    m_code = sqlite3_exec(m_db.get(), sql, nullptr, nullptr, nullptr);
    return m_code == SQLITE_OK;
}

History::Statement History::Compile(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    m_code = sqlite3_prepare_v2(m_db.get(), sql, -1, &statement, nullptr);
    return Statement(statement);
}

bool History::Step(sqlite3_stmt* statement) {
    m_code = sqlite3_step(statement);
    const bool done = m_code == SQLITE_DONE;
    sqlite3_reset(statement);
    return done;
}

// One number; 0 with another m_code than SQLITE_ROW when there is none.
int64_t History::Number(const char* sql) {
    const Statement statement = Compile(sql);
    if (!statement || (m_code = sqlite3_step(statement.get())) != SQLITE_ROW) {
        return 0;
    }
    return sqlite3_column_int64(statement.get(), 0);
}

// ---- storing ----

void History::Add(Event event) {
    if (m_waiting.size() >= MAX_WAITING) {
        const int64_t time = m_waiting.front().time;
        m_lostFrom = m_lostFrom == 0 ? time : m_lostFrom;
        m_lostUntil = time;
        ++m_lost;
        m_waiting.pop_front();
    }
    event.id = m_next++;
    event.mono = Monotonic();
    m_waiting.push_back(std::move(event));
}

void History::Store(int64_t now) {
    if (m_waiting.empty() || m_foreign || now < m_retry) {
        return;
    }
    if (!m_db && !OpenFile()) {
        Recover(now);
        return;
    }
    if (!StoreAll()) {
        Trouble();
        sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        Recover(now);
        return;
    }
    m_problem.clear();
    m_rows += static_cast<int64_t>(m_waiting.size());
    m_oldest = m_oldest == 0 ? m_waiting.front().time : m_oldest;
    const int64_t mono = Monotonic();
    for (const Event& event : m_waiting) {
        if (on_stored) {
            on_stored(mono - event.mono);
        }
    }
    m_waiting.clear();
    if (m_lostFrom != 0) {
        Event gap;
        gap.text = NOT_WRITTEN;
        gap.kind = EventKind::GapBegin;
        gap.time = m_lostFrom;
        Add(gap);
        gap.kind = EventKind::GapEnd;
        gap.time = m_lostUntil;
        Add(gap);
        m_lostFrom = 0;
    }
}

bool History::StoreAll() {
    return Run("BEGIN IMMEDIATE") &&
           std::all_of(m_waiting.begin(), m_waiting.end(),
                       [this](const Event& event) { return Insert(event); }) &&
           Run("COMMIT");
}

bool History::Insert(const Event& event) {
    sqlite3_stmt* const row = m_insert.get();
    sqlite3_bind_int64(row, 1, event.id);
    sqlite3_bind_int64(row, 2, event.time);
    sqlite3_bind_int(row, 3, static_cast<int>(event.kind));
    sqlite3_bind_null(row, 4);
    if (event.tag) {
        sqlite3_bind_int64(row, 4, *event.tag);
    }
    sqlite3_bind_null(row, 5);
    if (event.low) {
        sqlite3_bind_int(row, 5, *event.low ? 1 : 0);
    }
    sqlite3_bind_null(row, 6);
    if (event.duration != 0) {
        sqlite3_bind_int64(row, 6, event.duration);
    }
    BindText(row, 7, event.host);
    BindText(row, 8, event.text);
    return Step(row);
}

// ---- keeping ----

void History::Keep(int64_t now) {
    if (!m_db || now < m_retry) {
        return;
    }
    sqlite3_bind_int64(m_alive.get(), 1, now);
    if (!Step(m_alive.get()) || !Drop(now)) {
        Trouble();
        Recover(now);
    }
}

int64_t History::Bytes() {
    if (!m_db) {
        return 0;
    }
    const int64_t pages = Number("PRAGMA page_count") - Number("PRAGMA freelist_count");
    return pages * Number("PRAGMA page_size");
}

// The oldest are those with the lowest identifiers.
bool History::Drop(int64_t now) {
    const bool too_much = Bytes() > m_settings.keep_bytes;
    const int64_t limit = too_much ? now : now - m_settings.keep_ms;
    if (m_oldest == 0 || m_oldest >= limit) {
        return true;
    }
    char sql[160];
    snprintf(sql, sizeof sql,
             "DELETE FROM events WHERE id IN (SELECT id FROM events ORDER BY id LIMIT %d)"
             " AND time < %lld",
             DROP_AT_ONCE, static_cast<long long>(limit));
    if (!Run(sql)) {
        return false;
    }
    m_rows -= sqlite3_changes(m_db.get());
    m_oldest = Number("SELECT time FROM events ORDER BY id LIMIT 1");
    return m_code == SQLITE_ROW || m_code == SQLITE_DONE;
}

// ---- finding ----

History::Answer History::Find(const Query& query) {
    Answer answer;
    if (m_db) {
        ReadEvents(query, answer);
        ReadEarlier(query, answer);
        ReadGaps(query, answer);
    }
    return answer;
}

void History::ReadEvents(const Query& query, Answer& answer) {
    const unsigned limit = std::min(query.limit, MAX_ROWS);
    std::string sql = std::string("SELECT ") + COLUMNS + " FROM events WHERE ";
    sql += query.tag ? "tag = ?1 AND " : "";
    sql += "time >= ?2 AND time <= ?3 AND id < ?4 ORDER BY ";
    sql += query.tag ? "time DESC, id DESC" : "id DESC";
    sql += " LIMIT ?5";
    const Statement rows = Compile(sql.c_str());
    if (!rows) {
        Trouble();
        return;
    }
    sqlite3_bind_int64(rows.get(), 1, query.tag.value_or(0));
    sqlite3_bind_int64(rows.get(), 2, query.from);
    sqlite3_bind_int64(rows.get(), 3, query.until);
    sqlite3_bind_int64(rows.get(), 4, query.before_id);
    sqlite3_bind_int64(rows.get(), 5, static_cast<int64_t>(limit) + 1);
    while ((m_code = sqlite3_step(rows.get())) == SQLITE_ROW) {
        if (answer.events.size() == limit) {
            answer.more = true;
            break;
        }
        answer.events.push_back(EventOf(rows.get()));
    }
    if (m_code != SQLITE_ROW && m_code != SQLITE_DONE) {
        Trouble();
    }
}

// Where a timeline begins. With rows left out that is before them, not before `from`.
void History::ReadEarlier(const Query& query, Answer& answer) {
    if (!query.tag || answer.more) {
        return;
    }
    const Statement row = Compile((std::string("SELECT ") + COLUMNS +
                                   " FROM events WHERE tag = ?1 AND time < ?2 AND kind = 1 ORDER "
                                   "BY time DESC, id DESC LIMIT 1")
                                      .c_str());
    if (row) {
        sqlite3_bind_int64(row.get(), 1, *query.tag);
        sqlite3_bind_int64(row.get(), 2, query.from);
        if (sqlite3_step(row.get()) == SQLITE_ROW) {
            answer.earlier = EventOf(row.get());
        }
    }
}

void History::ReadGaps(const Query& query, Answer& answer) {
    const Statement rows = Compile(
        "SELECT time, kind, text FROM (SELECT id, time, kind, text FROM events WHERE kind IN (7, 8)"
        " ORDER BY id DESC LIMIT 2000) ORDER BY id");
    std::vector<Gap> gaps;
    while (rows && sqlite3_step(rows.get()) == SQLITE_ROW) {
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
    // What was told before a gap is not known behind it.
    for (const Gap& gap : gaps) {
        if (answer.earlier && gap.from >= answer.earlier->time && gap.from < query.from) {
            answer.earlier.reset();
        }
    }
    std::copy_if(gaps.begin(), gaps.end(), std::back_inserter(answer.gaps), [&](const Gap& gap) {
        return gap.from <= query.until && gap.until.value_or(query.until) >= query.from;
    });
}

// ---- troubles ----

void History::Trouble() {
    const std::string file = IsInMemory() ? "in memory" : m_settings.file;
    if (m_foreign) {
        m_problem = file + " is no history of this program; it is left alone";
    } else if (m_db) {
        m_problem = file + ": " + sqlite3_errmsg(m_db.get());
    } else {
        m_problem = file + ": " + sqlite3_errstr(m_code);
    }
}

void History::Recover(int64_t now) {
    m_retry = now + RETRY_AFTER;
    const int primary = m_code & 0xFF;
    if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) {
        if (IsOurs()) {
            PutAside(now);
        } else {
            m_foreign = true;
            Trouble();
            Close();
        }
    } else if (!m_insert) {
        Close();  // not opened as a whole
    }
}

// Whether the file, damaged or not, has our mark.
bool History::IsOurs() const {
    char header[72] = {};
    std::ifstream file(m_settings.file, std::ios::binary);
    if (!file.read(header, sizeof header)) {
        return false;
    }
    const char mark[] = {APPLICATION_ID >> 24, APPLICATION_ID >> 16 & 0x7F,
                         APPLICATION_ID >> 8 & 0x7F, APPLICATION_ID & 0x7F};
    return memcmp(header + 68, mark, sizeof mark) == 0;
}

void History::PutAside(int64_t now) {
    Close();
    const std::string aside = m_settings.file + ".damaged-" + std::to_string(now / 1000);
    if (rename(m_settings.file.c_str(), aside.c_str()) != 0) {
        m_problem += ", and it can't be put aside";
        return;
    }
    remove((m_settings.file + "-wal").c_str());
    remove((m_settings.file + "-shm").c_str());
    const std::string told = m_problem + "; the damaged file is now " + aside;
    if (OpenFile()) {
        m_retry = 0;
        m_notice = told;
    }
}

void History::Close() {
    m_insert.reset();
    m_alive.reset();
    m_db.reset();
}
