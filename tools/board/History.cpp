#include "tools/board/History.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <system_error>

namespace {

namespace fs = std::filesystem;

const int APPLICATION_ID = 0x6F727662;  // "orvb", in the header of the file
const int64_t RETRY_AFTER = 2000;       // ms
const int DROP_AT_ONCE = 2000;          // rows, so that dropping never takes long

const char* const NOT_RUNNING = "the board was not running";
const char* const REPLACED = "the history was replaced";
const char* const NOT_WRITTEN = "the history could not be written";

const char* const SCHEMA =
    "CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, tag INTEGER, low INTEGER, duration INTEGER, host TEXT, text TEXT);"
    "DROP INDEX IF EXISTS events_pin;"  // of an earlier version
    "CREATE INDEX IF NOT EXISTS events_tag ON events(tag) WHERE tag IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS events_time ON events(time);"
    "CREATE INDEX IF NOT EXISTS events_gap ON events(kind) WHERE kind IN (7, 8);"
    "CREATE INDEX IF NOT EXISTS events_clock ON events(kind) WHERE kind = 9;"
    "CREATE TABLE IF NOT EXISTS alive(one INTEGER PRIMARY KEY CHECK (one = 1), time INTEGER);";

void BindText(sqlite3_stmt* statement, int column, const std::string& text) {
    if (text.empty()) {
        sqlite3_bind_null(statement, column);
    } else {
        sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT);
    }
}

// None: there is no such file.
std::optional<std::pair<uint64_t, uint64_t>> IdOf(const std::string& file) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return std::pair<uint64_t, uint64_t>(status.st_dev, status.st_ino);
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
    m_start = now;
    m_before = NOT_RUNNING;
    if (!IsInMemory() && !Lock()) {
        throw std::runtime_error(m_problem);
    }
    if (!OpenFile()) {
        Recover(now);
    }
}

// False if another program has locked the file. It is a file beside it that is locked, because the
// database may be renamed or removed. If there can't be one, a database can't be written either.
bool History::Lock() {
    std::error_code error;
    const std::string name = fs::weakly_canonical(m_settings.file, error).string() + ".lock";
    m_lock = Descriptor(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (!m_lock.IsOpen() || fcntl(m_lock.Get(), F_SETLK, &lock) == 0 ||
        (errno != EAGAIN && errno != EACCES)) {
        return true;
    }
    const bool found = fcntl(m_lock.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    m_problem = m_settings.file + " is used by another program" +
                (found ? " (process " + std::to_string(lock.l_pid) + ")" : "");
    m_lock = Descriptor();
    return false;
}

bool History::OpenFile() {
    if (!IsInMemory() && !m_lock.IsOpen() && !Lock()) {
        m_code = SQLITE_BUSY;
        return false;
    }
    sqlite3* db = nullptr;
    const char* const name = IsInMemory() ? ":memory:" : m_settings.file.c_str();
    m_foreign = false;
    m_code = sqlite3_open_v2(name, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    m_db.reset(db);
    if (m_code != SQLITE_OK || !Prepare()) {
        Trouble();
        return false;
    }
    m_next = Number("SELECT max(id) FROM events") + 1;
    m_rows = Number("SELECT count(*) FROM events");
    m_oldest = Number("SELECT min(time) FROM events");
    if (m_code != SQLITE_ROW || !NoteStart()) {
        Trouble();
        return false;
    }
    for (Event& event : m_waiting) {
        event.id = m_next++;
    }
    m_opened = true;
    m_log = IdOf(m_settings.file + "-wal");
    m_problem.clear();
    return true;
}

// A file with tables that this program did not create must not be written to.
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
    // Without a sync at every commit: killing the program loses nothing, a power failure at most
    // the last seconds.
    if (!Run("PRAGMA journal_mode=WAL") || !Run("PRAGMA synchronous=NORMAL") ||
        !Run("PRAGMA cache_size=-2000") || !Run("PRAGMA journal_size_limit=8388608") ||
        (id != APPLICATION_ID && !Run(set_id)) || !Run(SCHEMA)) {
        return false;
    }
    m_insert = Compile("INSERT INTO events VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
    m_alive = Compile("INSERT INTO alive VALUES(1, ?1) ON CONFLICT DO UPDATE SET time = ?1");
    return m_insert && m_alive;
}

// Once for each file. The board may have been killed during a gap.
bool History::NoteStart() {
    const int64_t alive = std::max(Number("SELECT time FROM alive"),
                                   Number("SELECT time FROM events ORDER BY id DESC LIMIT 1"));
    Answer answer;
    if (!ReadGaps({}, answer)) {
        return false;
    }
    std::deque<Event> events;
    const auto add = [&events](EventKind kind, int64_t time, const std::string& text) {
        Event event;
        event.kind = kind;
        event.time = time;
        event.text = text;
        event.mono = Monotonic();
        events.push_back(std::move(event));
    };
    if (alive != 0 && m_start != 0) {
        for (const Gap& gap : answer.gaps) {
            if (!gap.until) {
                add(EventKind::GapEnd, alive, gap.reason);
            }
        }
        if (alive - m_start > SET_BACK) {
            add(EventKind::ClockSetBack, m_start, "");
            events.back().duration = alive - m_start;
        }
        add(EventKind::GapBegin, std::min(alive, m_start), m_before);
        add(EventKind::GapEnd, m_start, m_before);
    }
    m_start = 0;
    m_waiting.insert(m_waiting.begin(), events.begin(), events.end());
    return true;
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

// One number; 0 with another m_code than SQLITE_ROW if there is none.
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
        m_lost_from = m_lost_from == 0 ? time : m_lost_from;
        m_lost_until = time;
        ++m_lost;
        m_waiting.pop_front();
    }
    NoteClock(event.time);
    event.id = m_next++;
    event.mono = Monotonic();
    m_waiting.push_back(std::move(event));
}

// Later events with earlier times would look as if they had happened before.
void History::NoteClock(int64_t time) {
    const int64_t back = std::exchange(m_latest, time) - time;
    if (back > SET_BACK) {
        Event event;
        event.kind = EventKind::ClockSetBack;
        event.time = time;
        event.duration = back;
        event.id = m_next++;
        event.mono = Monotonic();
        m_waiting.push_back(std::move(event));
    }
}

// The clock may have been set back meanwhile.
bool History::IsDue(int64_t now) const {
    return now >= m_retry || m_retry > now + RETRY_AFTER;
}

void History::Store(int64_t now) {
    if (m_waiting.empty() || !IsDue(now)) {
        return;
    }
    if (!m_db && !OpenFile()) {
        Recover(now);
        return;
    }
    const size_t count = std::min(m_waiting.size(), MAX_AT_ONCE);
    if (!StoreSome(count)) {
        Trouble();
        sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        Recover(now);
        return;
    }
    m_problem.clear();
    m_rows += static_cast<int64_t>(count);
    m_oldest = m_oldest == 0 ? m_waiting.front().time : m_oldest;
    const int64_t mono = Monotonic();
    for (size_t i = 0; i < count; ++i) {
        if (on_stored) {
            on_stored(mono - m_waiting.front().mono);
        }
        m_waiting.pop_front();
    }
    if (m_lost_from != 0) {
        NoteLost();
    }
}

bool History::StoreSome(size_t count) {
    return Run("BEGIN IMMEDIATE") &&
           std::all_of(m_waiting.begin(), m_waiting.begin() + static_cast<ptrdiff_t>(count),
                       [this](const Event& event) { return Insert(event); }) &&
           Run("COMMIT");
}

void History::NoteLost() {
    Event gap;
    gap.text = NOT_WRITTEN;
    gap.kind = EventKind::GapBegin;
    gap.time = m_lost_from;
    Add(gap);
    gap.kind = EventKind::GapEnd;
    gap.time = m_lost_until;
    Add(gap);
    m_lost_from = 0;
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
    if (!m_db || !IsDue(now)) {
        return;
    }
    if (IsTakenAway()) {
        LetGo(now);
        return;
    }
    sqlite3_bind_int64(m_alive.get(), 1, now);
    if (!Step(m_alive.get()) || !Drop(now)) {
        Trouble();
        Recover(now);
    } else if (m_waiting.empty()) {
        m_problem.clear();  // Store() reports what still waits
    }
}

// A file without a name goes with the program.
bool History::IsTakenAway() const {
    int moved = 0;
    return sqlite3_file_control(m_db.get(), nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved != 0;
}

// SQLite leaves the log of a file that was moved, and would apply it to the next one of that name.
void History::LetGo(int64_t now) {
    Close();
    const std::string log = m_settings.file + "-wal";
    if (IdOf(log) == m_log) {
        remove(log.c_str());
    }
    m_start = now;
    m_before = REPLACED;
    m_notice = m_settings.file + (IdOf(m_settings.file) ? " was replaced" : " was removed");
}

int64_t History::Bytes() {
    if (!m_db) {
        return 0;
    }
    const int64_t pages = Number("PRAGMA page_count") - Number("PRAGMA freelist_count");
    return pages * Number("PRAGMA page_size");
}

// The oldest events have the lowest identifiers.
bool History::Drop(int64_t now) {
    const bool too_much = Bytes() > m_settings.keep_bytes;
    const int64_t limit = too_much ? std::numeric_limits<int64_t>::max() : now - m_settings.keep_ms;
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
        if (m_opened || IsOurs()) {
            PutAside(now);
            return;
        }
        m_foreign = true;
        Trouble();
    }
    if (m_foreign || !m_insert) {
        Close();  // not completely opened
    }
}

// Whether the file, damaged or not, has our application ID.
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
        m_problem += ", and it can't be renamed";
        return;
    }
    // The log can be salvaged together with its file; beside a new file it would be damage.
    const std::string log = m_settings.file + "-wal";
    if (rename(log.c_str(), (aside + "-wal").c_str()) != 0) {
        remove(log.c_str());
    }
    remove((m_settings.file + "-shm").c_str());
    RemoveOldDamaged();
    const std::string told = m_problem + "; the damaged file is now " + aside;
    if (OpenFile()) {
        m_retry = 0;
        m_notice = told;
    }
}

// Damage that comes again and again must not fill the disk.
void History::RemoveOldDamaged() const {
    std::error_code error;
    const fs::path file = fs::absolute(m_settings.file, error);
    const std::string begin = file.filename().string() + ".damaged-";
    std::set<fs::path> found;  // in the order of their times
    fs::directory_iterator entry(file.parent_path(), error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.compare(0, begin.size(), begin) == 0 &&
            name.find_first_not_of("0123456789", begin.size()) == std::string::npos) {
            found.insert(entry->path());
        }
    }
    for (; found.size() > KEPT_ASIDE; found.erase(found.begin())) {
        fs::remove(*found.begin(), error);
        fs::remove(found.begin()->string() + "-wal", error);
    }
}

void History::Close() {
    m_opened = false;
    m_insert.reset();
    m_alive.reset();
    m_db.reset();
}
