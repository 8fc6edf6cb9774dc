#include "tools/board/HistoryFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

namespace {

namespace fs = std::filesystem;

const int APPLICATION_ID = 0x6F727662;  // "orvb", in the header of the file

const char* const SCHEMA =
    "CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY, time INTEGER NOT NULL,"
    " kind INTEGER NOT NULL, tag INTEGER, low INTEGER, duration INTEGER, host TEXT, text TEXT);"
    "DROP INDEX IF EXISTS events_pin;"  // of an earlier version
    "CREATE INDEX IF NOT EXISTS events_tag ON events(tag) WHERE tag IS NOT NULL;"
    "CREATE INDEX IF NOT EXISTS events_time ON events(time);"
    "CREATE INDEX IF NOT EXISTS events_gap ON events(kind) WHERE kind IN (7, 8);"
    "CREATE INDEX IF NOT EXISTS events_clock ON events(kind) WHERE kind = 9;"
    "CREATE TABLE IF NOT EXISTS alive(one INTEGER PRIMARY KEY CHECK (one = 1), time INTEGER);";

}  // namespace

// It is a file beside it that is locked, because the database may be renamed or removed. If there
// can't be one, a database can't be written either.
bool HistoryFile::Lock() {
    std::error_code error;
    const std::string name = fs::weakly_canonical(m_name, error).string() + ".lock";
    m_lock = Descriptor(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    m_locked.clear();
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (!m_lock.IsOpen() || fcntl(m_lock.Get(), F_SETLK, &lock) == 0 ||
        (errno != EAGAIN && errno != EACCES)) {
        return true;
    }
    const bool found = fcntl(m_lock.Get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    m_locked = m_name + " is used by another program" +
               (found ? " (process " + std::to_string(lock.l_pid) + ")" : "");
    m_lock = Descriptor();
    return false;
}

bool HistoryFile::Open() {
    m_foreign = false;
    if (!IsInMemory() && !m_lock.IsOpen() && !Lock()) {
        return false;
    }
    m_opened = m_db.Open(IsInMemory() ? ":memory:" : m_name) && Prepare();
    m_log = IdOf(m_name + "-wal");
    return m_opened;
}

// A file with tables that this program did not create must not be written to.
bool HistoryFile::Prepare() {
    const int64_t id = m_db.Number("PRAGMA application_id");
    if (m_db.Failed()) {
        return false;
    }
    if (id != APPLICATION_ID && m_db.Number("SELECT count(*) FROM sqlite_master") > 0) {
        m_foreign = true;
        return false;
    }
    const std::string mark = "PRAGMA application_id=" + std::to_string(APPLICATION_ID);
    // Without a sync at every commit: killing the program loses nothing, a power failure at most
    // the last seconds.
    return m_db.Run("PRAGMA journal_mode=WAL") && m_db.Run("PRAGMA synchronous=NORMAL") &&
           m_db.Run("PRAGMA cache_size=-2000") && m_db.Run("PRAGMA journal_size_limit=8388608") &&
           (id == APPLICATION_ID || m_db.Run(mark.c_str())) && m_db.Run(SCHEMA);
}

void HistoryFile::Close() {
    m_opened = false;
    m_db.Close();
}

std::string HistoryFile::Problem() const {
    return !m_locked.empty() ? m_locked
           : m_foreign       ? m_name + " is no history of this program; it is left alone"
                             : (IsInMemory() ? "in memory" : m_name) + ": " + m_db.Error();
}

bool HistoryFile::IsDamaged() {
    if (!m_locked.empty() || !m_db.IsDamaged()) {
        return false;
    }
    m_foreign = !m_opened && !IsMarked();
    return !m_foreign;
}

// Whether the file, damaged or not, has our application ID.
bool HistoryFile::IsMarked() const {
    char header[72] = {};
    std::ifstream file(m_name, std::ios::binary);
    if (!file.read(header, sizeof header)) {
        return false;
    }
    const char mark[] = {APPLICATION_ID >> 24, APPLICATION_ID >> 16 & 0x7F,
                         APPLICATION_ID >> 8 & 0x7F, APPLICATION_ID & 0x7F};
    return memcmp(header + 68, mark, sizeof mark) == 0;
}

// None: there is no such file.
std::optional<HistoryFile::FileId> HistoryFile::IdOf(const std::string& file) {
    struct stat status = {};
    if (stat(file.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileId(status.st_dev, status.st_ino);
}

// SQLite leaves the log of a file that was moved, and would apply it to the next one of that name.
std::string HistoryFile::LetGo() const {
    const std::string log = m_name + "-wal";
    if (IdOf(log) == m_log) {
        remove(log.c_str());
    }
    return m_name + (IdOf(m_name) ? " was replaced" : " was removed");
}

std::optional<std::string> HistoryFile::PutAside(int64_t now) const {
    const std::string aside = m_name + ".damaged-" + std::to_string(now / 1000);
    if (rename(m_name.c_str(), aside.c_str()) != 0) {
        return std::nullopt;
    }
    // The log can be salvaged together with its file; beside a new file it would be damage.
    const std::string log = m_name + "-wal";
    if (rename(log.c_str(), (aside + "-wal").c_str()) != 0) {
        remove(log.c_str());
    }
    remove((m_name + "-shm").c_str());
    RemoveOldDamaged();
    return aside;
}

// Damage that comes again and again must not fill the disk.
void HistoryFile::RemoveOldDamaged() const {
    std::error_code error;
    const fs::path file = fs::absolute(m_name, error);
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
