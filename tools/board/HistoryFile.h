// The file of a history.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "tools/base/Descriptor.h"
#include "tools/board/Database.h"

// A database with the tables of a history, in write-ahead mode: if the program is killed,
// everything stored remains. Tells what is wrong with a file, and never writes to one of another
// program. Only one program at a time uses a file.
class HistoryFile {
public:
    static constexpr size_t KEPT_ASIDE = 3;

    // Without a name, the history is in memory, gone with the program.
    explicit HistoryFile(std::string name) : m_name(std::move(name)) {}

    // Keeps others from using the file. False: somebody else does, as Problem() says.
    bool Lock();

    // Opens or creates the file and its tables. False: Problem() says why; it may be half open.
    bool Open();
    bool IsOpen() const { return m_db.IsOpen(); }
    // All statements must have been released.
    void Close();

    Database& Db() { return m_db; }
    bool IsInMemory() const { return m_name.empty(); }

    // What the last failure was, for people.
    std::string Problem() const;
    // Whether it was damage, to a file that was a history. A file that is damaged and was none
    // belongs to another program.
    bool IsDamaged();
    // Whether the file was renamed, removed or replaced while it was open.
    bool IsTakenAway() const { return m_db.HasMoved(); }

    // For a closed file that was taken away: nothing of it is applied to the next one of its name.
    // Returns "FILE was replaced" or "FILE was removed".
    std::string LetGo() const;
    // For a closed file that is damaged: renames it, and removes all but the newest KEPT_ASIDE of
    // such files. Returns its new name; none if it can't be renamed.
    std::optional<std::string> PutAside(int64_t now) const;

private:
    // Device and inode.
    using FileId = std::pair<uint64_t, uint64_t>;

    static std::optional<FileId> IdOf(const std::string& file);
    bool Prepare();
    bool IsMarked() const;
    void RemoveOldDamaged() const;

    const std::string m_name;
    Database m_db;
    Descriptor m_lock;
    std::string m_locked;         // by whom; empty: by this program, or by nobody
    std::optional<FileId> m_log;  // the write-ahead log
    bool m_opened = false;        // the file was a history, whatever it looks like now
    bool m_foreign = false;
};
