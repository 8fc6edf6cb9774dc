#include "tools/board/Database.h"

#include <sqlite3.h>

void Database::CloseDatabase::operator()(sqlite3* db) const {
    sqlite3_close_v2(db);
}

void Database::Finalize::operator()(sqlite3_stmt* statement) const {
    sqlite3_finalize(statement);
}

// True if it is no failure.
bool Database::Note(int code) {
    m_code = code;
    const bool is_good = code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE;
    m_error = is_good ? "" : m_db ? sqlite3_errmsg(m_db.get()) : sqlite3_errstr(code);
    return is_good;
}

bool Database::Open(const std::string& file) {
    sqlite3* db = nullptr;
    const int code =
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    m_db.reset(db);
    return Note(code) && Note(sqlite3_busy_timeout(db, 0));
}

bool Database::Run(const char* sql) {
    return Note(sqlite3_exec(m_db.get(), sql, nullptr, nullptr, nullptr));
}

Database::Statement Database::Compile(const std::string& sql) {
    sqlite3_stmt* statement = nullptr;
    Note(sqlite3_prepare_v2(m_db.get(), sql.c_str(), -1, &statement, nullptr));
    return Statement(statement);
}

bool Database::Step(const Statement& statement) {
    Note(sqlite3_step(statement.get()));
    sqlite3_reset(statement.get());
    return m_code == SQLITE_DONE;
}

bool Database::Next(const Statement& statement) {
    return statement && Note(sqlite3_step(statement.get())) && m_code == SQLITE_ROW;
}

int64_t Database::Number(const char* sql) {
    const Statement statement = Compile(sql);
    return Next(statement) ? sqlite3_column_int64(statement.get(), 0) : 0;
}

int64_t Database::Changes() const {
    return sqlite3_changes(m_db.get());
}

bool Database::HasMoved() const {
    int moved = 0;
    return sqlite3_file_control(m_db.get(), nullptr, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved != 0;
}

void Database::Rollback() {
    sqlite3_exec(m_db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Database::IsDamaged() const {
    const int primary = m_code & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}
