// What happened on the bus, kept in a file.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

// Numbers are stored: they are never given another meaning.
enum class EventKind : int {
    Told = 1,           // a pin has this level, or from here on nobody knows (no level)
    Written = 2,        // a write was seen on the bus
    SetAsked = 3,       // someone asked this board to write
    DeviceFirst = 4,    // a host answered or reported for the first time since the start
    DeviceMissing = 5,  // it no longer answers
    DeviceBack = 6,     // it answers again
    GapBegin = 7,       // from here on nothing was heard or kept, for the reason in the text,
    GapEnd = 8,         // until here
};

// One thing that happened. Times are milliseconds since 1970.
struct Event {
    int64_t id = 0;  // grows with every event; given by the history
    int64_t time = 0;
    EventKind kind = EventKind::Told;
    std::optional<uint32_t> tag;  // the pin
    std::optional<bool> low;      // its level
    uint32_t duration = 0;        // of a write in ms, 0: no limit
    std::string host;             // who told or wrote; of SetAsked who asked
    std::string text;             // what people should read
    int64_t mono = 0;             // ms of the steady clock, to measure the delay until it is stored
};

// A time in which nothing was heard, so that silence is not taken for "nothing happened".
struct Gap {
    int64_t from = 0;
    std::optional<int64_t> until;  // none: it lasts
    std::string reason;
};

struct HistorySettings {
    std::string file;  // empty: in memory, gone with the program
    int64_t keep_ms = 90LL * 24 * 3600 * 1000;
    int64_t keep_bytes = 1LL << 30;
};

// SQLite in write-ahead mode: a program that is killed leaves everything that was stored. Events
// are collected and stored in one transaction, within STORE_AFTER of the first. Troubles of the
// file are told by Problem(), and never reach further than the history: events wait, up to a
// bound, for a disk that is full; a damaged history is put aside for a new one; one that was taken
// away is begun anew; a file that is something else is left alone, and looked at again. Times
// handed in are milliseconds since 1970.
class History {
public:
    static constexpr int STORE_AFTER = 40;  // ms
    static constexpr size_t MAX_WAITING = 50000;
    static constexpr size_t MAX_AT_ONCE = 5000;  // events of one Store(), which takes so long
    static constexpr unsigned MAX_ROWS = 10000;  // of one answer

    explicit History(HistorySettings settings);
    ~History();
    History(const History&) = delete;
    History& operator=(const History&) = delete;

    // Opens the file and notes since when nothing was heard; if that fails, Store() tries again.
    void Open(int64_t now);

    // Keeps an event for the next Store().
    void Add(Event event);

    // Whether Store() has something to do.
    bool IsWaiting() const { return !m_waiting.empty(); }

    // Stores what waits. Called again after a while when IsWaiting() remains.
    void Store(int64_t now);

    // Notes that the program lives and drops a part of what is too old or too much. Call it every
    // few seconds.
    void Keep(int64_t now);

    struct Query {
        std::optional<uint32_t> tag;  // none: everything
        int64_t from = 0;
        int64_t until = std::numeric_limits<int64_t>::max();
        int64_t before_id = std::numeric_limits<int64_t>::max();  // only what is behind that event
        unsigned limit = 1000;                                    // at most MAX_ROWS
    };
    struct Answer {
        std::vector<Event> events;     // newest first
        bool more = false;             // older ones were left out by the limit
        std::optional<Event> earlier;  // with a tag: the last level of the pin before `from`
        std::vector<Gap> gaps;
    };
    // None when the history can't be read.
    std::optional<Answer> Find(const Query& query, int64_t now);

    // Empty when all is well.
    const std::string& Problem() const { return m_problem; }
    // What happened to an earlier file; empty when nothing did.
    const std::string& Notice() const { return m_notice; }
    bool IsInMemory() const { return m_settings.file.empty(); }
    int64_t Rows() const { return m_rows; }
    int64_t Oldest() const { return m_oldest; }  // 0: nothing there
    int64_t Lost() const { return m_lost; }      // events that found no room while waiting
    int64_t Bytes();

    // Is told, for each event stored, how many ms it was behind.
    std::function<void(int64_t)> on_stored;

private:
    struct CloseDatabase {
        void operator()(sqlite3* db) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    bool OpenFile();
    bool Prepare();
    bool Run(const char* sql);
    bool Step(sqlite3_stmt* statement);
    Statement Compile(const char* sql);
    int64_t Number(const char* sql);
    bool NoteStart();
    bool IsDue(int64_t now) const;
    bool StoreSome(size_t count);
    bool Insert(const Event& event);
    void NoteLost();
    bool ReadEvents(const Query& query, Answer& answer);
    bool ReadEarlier(const Query& query, Answer& answer);
    bool ReadGaps(const Query& query, Answer& answer);
    bool IsTakenAway() const;
    bool Drop(int64_t now);
    void Trouble();
    void Recover(int64_t now);
    bool IsOurs() const;
    void PutAside(int64_t now);
    void Close();

    HistorySettings m_settings;
    std::unique_ptr<sqlite3, CloseDatabase> m_db;
    Statement m_insert;
    Statement m_alive;
    std::deque<Event> m_waiting;
    int64_t m_next = 1;
    int64_t m_rows = 0;
    int64_t m_oldest = 0;
    int64_t m_lost = 0;
    int64_t m_lostFrom = 0;  // 0: nothing was lost since the last time that events were stored
    int64_t m_lostUntil = 0;
    int64_t m_start = 0;  // since when events are kept; 0: the file knows it
    int64_t m_retry = 0;
    int m_code = 0;
    bool m_opened = false;   // whatever the file looks like now, it was a history
    bool m_foreign = false;  // the file is none of ours
    std::string m_problem;
    std::string m_notice;
};
