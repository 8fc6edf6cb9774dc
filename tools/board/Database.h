// A database of SQLite.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

// Failures are results: Failed(), Error() and IsDamaged() tell what became of the last call,
// Rollback() excepted. Release all statements before Close().
class Database {
public:
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    // Opens or creates a file; ":memory:" is a database without one. Call Close() if it fails.
    bool Open(const std::string& file);
    void Close() { m_db.reset(); }
    bool IsOpen() const { return m_db != nullptr; }

    // Runs statements whose rows don't matter.
    bool Run(const char* sql);
    // Null on failure.
    Statement Compile(const std::string& sql);
    // Runs a statement without rows; it can then be used again.
    bool Step(const Statement& statement);
    // Whether there is a further row. If not, that was the end, or a failure.
    bool Next(const Statement& statement);
    // The number that a query yields; 0 if it yields none.
    int64_t Number(const char* sql);
    // Rows that the last DELETE removed.
    int64_t Changes() const;
    // Whether the file no longer has the name with which it was opened.
    bool HasMoved() const;
    // Ends a transaction, if there is one, without its changes.
    void Rollback();

    bool Failed() const { return !m_error.empty(); }
    const std::string& Error() const { return m_error; }
    // Whether it failed because the file is no database, or a damaged one.
    bool IsDamaged() const;

private:
    struct CloseDatabase {
        void operator()(sqlite3* db) const;
    };

    bool Note(int code);

    std::unique_ptr<sqlite3, CloseDatabase> m_db;
    int m_code = 0;
    std::string m_error;
};
