#include "tools/board/History.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

namespace {

const int64_t RETRY_AFTER = 2000;  // ms
const int DROP_AT_ONCE = 2000;     // rows, so that dropping never takes long

const char* const INSERT = "INSERT INTO events VALUES(?, ?, ?, ?, ?, ?, ?, ?)";
const char* const NOTE_ALIVE =
    "INSERT INTO alive VALUES(1, ?1) ON CONFLICT DO UPDATE SET time = ?1";

const char* const NOT_RUNNING = "the board was not running";
const char* const REPLACED = "the history was replaced";
const char* const NOT_WRITTEN = "the history could not be written";

void BindText(sqlite3_stmt* statement, int column, const std::string& text) {
    if (text.empty()) {
        sqlite3_bind_null(statement, column);
    } else {
        sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }
}

int64_t Monotonic() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// An event of the history itself.
Event Note(EventKind kind, int64_t time, const std::string& text = "") {
    Event event;
    event.kind = kind;
    event.time = time;
    event.text = text;
    event.mono = Monotonic();
    return event;
}

}  // namespace

History::History(HistorySettings settings)
    : m_settings(std::move(settings)), m_file(m_settings.file) {}

// ---- opening ----

void History::Open(int64_t now) {
    m_start = now;
    m_before = NOT_RUNNING;
    if (!IsInMemory() && !m_file.Lock()) {
        throw std::runtime_error(m_file.Problem());
    }
    if (!OpenFile()) {
        Recover(now);
    }
}

bool History::OpenFile() {
    if (m_file.Open() && Prepare() && NoteStart()) {
        m_problem.clear();
        return true;
    }
    m_insert.reset();  // for Recover(): it is not completely open
    return false;
}

bool History::Prepare() {
    Database& db = m_file.Db();
    m_insert = db.Compile(INSERT);
    m_alive = m_insert ? db.Compile(NOTE_ALIVE) : nullptr;
    if (!m_insert || !m_alive) {
        return false;
    }
    m_next = db.Number("SELECT max(id) FROM events") + 1;
    if (db.Failed()) {
        return false;
    }
    m_rows = db.Number("SELECT count(*) FROM events");
    ReadOldest();
    return !db.Failed();
}

// Once for each file. The board may have been killed during a gap.
bool History::NoteStart() {
    Database& db = m_file.Db();
    const int64_t alive = std::max(db.Number("SELECT time FROM alive"),
                                   db.Number("SELECT time FROM events ORDER BY id DESC LIMIT 1"));
    const std::optional<std::vector<Gap>> gaps = HistorySearch::ReadGaps(db);
    if (!gaps) {
        return false;
    }
    if (alive != 0 && m_start != 0) {
        for (const Gap& gap : *gaps) {
            if (!gap.until) {
                m_opening.push_back(Note(EventKind::GapEnd, alive, gap.reason));
            }
        }
        if (alive - m_start > SET_BACK_MS) {
            m_opening.push_back(Note(EventKind::ClockSetBack, m_start));
            m_opening.back().duration = alive - m_start;
        }
        m_opening.push_back(Note(EventKind::GapBegin, std::min(alive, m_start), m_before));
        m_opening.push_back(Note(EventKind::GapEnd, m_start, m_before));
    }
    m_start = 0;
    return true;
}

void History::CloseFile() {
    m_insert.reset();
    m_alive.reset();
    m_file.Close();
}

// ---- storing ----

void History::Add(Event event) {
    if (m_waiting.size() >= MAX_WAITING) {
        const int64_t time = m_waiting.front().time;
        m_lost_from = m_lost_from == 0 ? time : m_lost_from;
        m_lost_until = time;
        ++m_lost;
        m_waiting.pop_front();
    }
    // Later events with earlier times would look as if they had happened before.
    const int64_t back = std::exchange(m_latest, event.time) - event.time;
    if (back > SET_BACK_MS) {
        m_waiting.push_back(Note(EventKind::ClockSetBack, event.time));
        m_waiting.back().duration = back;
    }
    event.mono = Monotonic();
    m_waiting.push_back(std::move(event));
}

// The clock may have been set back meanwhile.
bool History::IsDue(int64_t now) const {
    return now >= m_retry || m_retry > now + RETRY_AFTER;
}

void History::Store(int64_t now) {
    if (!IsWaiting() || !IsDue(now)) {
        return;
    }
    const size_t count = std::min(m_waiting.size(), MAX_AT_ONCE);
    if ((!m_file.IsOpen() && !OpenFile()) || !StoreSome(count)) {
        Recover(now);
        return;
    }
    m_problem.clear();
    const int64_t mono = Monotonic();
    for (size_t i = 0; i < count; ++i) {
        if (on_stored) {
            on_stored(mono - m_waiting.front().mono);
        }
        m_waiting.pop_front();
    }
}

// The first of those that wait, after what was before them.
bool History::StoreSome(size_t count) {
    std::deque<Event> events = m_opening;
    if (m_lost_from != 0) {
        events.push_back(Note(EventKind::GapBegin, m_lost_from, NOT_WRITTEN));
        events.push_back(Note(EventKind::GapEnd, m_lost_until, NOT_WRITTEN));
    }
    int64_t id = m_next;
    const auto insert = [&](const Event& event) { return Insert(event, id++); };
    Database& db = m_file.Db();
    if (!db.Run("BEGIN IMMEDIATE") || !std::all_of(events.begin(), events.end(), insert) ||
        !std::all_of(m_waiting.begin(), m_waiting.begin() + static_cast<ptrdiff_t>(count),
                     insert) ||
        !db.Run("COMMIT")) {
        db.Rollback();
        return false;
    }
    m_opening.clear();
    m_lost_from = 0;
    m_rows += id - std::exchange(m_next, id);
    if (m_oldest == 0) {
        ReadOldest();
    }
    return true;
}

bool History::Insert(const Event& event, int64_t id) {
    sqlite3_stmt* const row = m_insert.get();
    sqlite3_bind_int64(row, 1, id);
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
    return m_file.Db().Step(m_insert);
}

// ---- keeping ----

void History::Keep(int64_t now) {
    if (!m_file.IsOpen() || !IsDue(now)) {
        return;
    }
    if (m_file.IsTakenAway()) {
        CloseFile();
        m_notice = m_file.LetGo();
        m_start = now;
        m_before = REPLACED;
        return;
    }
    sqlite3_bind_int64(m_alive.get(), 1, now);
    if (!m_file.Db().Step(m_alive) || !Drop(now)) {
        Recover(now);
    } else if (!IsWaiting()) {
        m_problem.clear();  // Store() reports what still waits
    }
}

int64_t History::Bytes() {
    Database& db = m_file.Db();
    const int64_t pages = db.Number("PRAGMA page_count") - db.Number("PRAGMA freelist_count");
    return pages * db.Number("PRAGMA page_size");
}

// The oldest events have the lowest identifiers.
bool History::Drop(int64_t now) {
    const bool too_much = Bytes() > m_settings.keep_bytes;
    const int64_t limit = too_much ? std::numeric_limits<int64_t>::max() : now - m_settings.keep_ms;
    if (m_oldest == 0 || m_oldest >= limit) {
        return true;
    }
    Database& db = m_file.Db();
    const std::string sql =
        "DELETE FROM events WHERE id IN (SELECT id FROM events ORDER BY id LIMIT " +
        std::to_string(DROP_AT_ONCE) + ") AND time < " + std::to_string(limit);
    if (!db.Run(sql.c_str())) {
        return false;
    }
    m_rows -= db.Changes();
    ReadOldest();
    return !db.Failed();
}

void History::ReadOldest() {
    m_oldest = m_file.Db().Number("SELECT time FROM events ORDER BY id LIMIT 1");
}

// ---- reading ----

std::optional<History::Answer> History::Find(const Query& query, int64_t now) {
    if (!m_file.IsOpen()) {
        return std::nullopt;
    }
    std::optional<Answer> answer = HistorySearch(m_file.Db(), query).Find();
    if (!answer) {
        Recover(now);
    }
    return answer;
}

// ---- troubles ----

// After a failure of the file.
void History::Recover(int64_t now) {
    m_retry = now + RETRY_AFTER;
    const bool is_damaged = m_file.IsDamaged();
    m_problem = m_file.Problem();
    if (is_damaged) {
        BeginAnew(now);
    } else if (!m_insert) {
        CloseFile();
    }
}

// Instead of a damaged file.
void History::BeginAnew(int64_t now) {
    CloseFile();
    const std::optional<std::string> aside = m_file.PutAside(now);
    if (!aside) {
        m_problem += ", and it can't be renamed";
        return;
    }
    const std::string told = m_problem + "; the damaged file is now " + *aside;
    if (OpenFile()) {
        m_retry = 0;
        m_notice = told;
    } else {
        m_problem = m_file.Problem();
        CloseFile();
    }
}
