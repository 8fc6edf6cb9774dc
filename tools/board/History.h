// What happened on the bus, stored in a file.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/base/Descriptor.h"

struct sqlite3;
struct sqlite3_stmt;

// These numbers are stored: never change their meaning.
enum class EventKind : int {
    Told = 1,           // a pin has this level, or is unknown from here on (no level)
    Written = 2,        // a write was seen on the bus
    SetAsked = 3,       // someone asked this board to write
    DeviceFirst = 4,    // a host answered or reported for the first time since the start
    DeviceMissing = 5,  // it no longer answers
    DeviceBack = 6,     // it answers again
    GapBegin = 7,       // from here on nothing was heard or stored, for the reason in the text,
    GapEnd = 8,         // until here
    ClockSetBack = 9,   // from here on times repeat; the duration says how many milliseconds
};

// An event. Times are milliseconds since 1970.
struct Event {
    int64_t id = 0;  // grows with every event; assigned by the history
    int64_t time = 0;
    EventKind kind = EventKind::Told;
    std::optional<uint32_t> tag;  // the pin
    std::optional<bool> low;      // its level
    int64_t duration = 0;         // of a write in ms, 0: no limit
    std::string host;             // who told or wrote; for SetAsked who asked
    std::string text;             // a text for people
    int64_t mono = 0;             // ms of the steady clock, to measure the delay until it is stored
};

// A time in which nothing was heard, so that silence is not taken for "nothing happened".
struct Gap {
    int64_t from = 0;
    std::optional<int64_t> until;  // none: not over yet
    std::string reason;
};

struct HistorySettings {
    std::string file;  // empty: in memory, gone with the program
    int64_t keep_ms = 90LL * 24 * 3600 * 1000;
    int64_t keep_bytes = 1LL << 30;
};

// SQLite in write-ahead mode: if the program is killed, everything stored remains. Events are
// collected and stored in one transaction, within STORE_AFTER of the first. Problem() reports
// trouble with the file, which affects only the history: events wait, up to a bound, while the disk
// is full; a damaged history is set aside for a new one, and the newest KEPT_ASIDE of them
// remain; a missing one is created again; one that another has replaced is let go for the other,
// with a gap; a file that is something else is left alone and checked again. Only one program at a
// time uses a file. Times are milliseconds since 1970, of a clock that may be set; the order of
// events is that in which they were added.
class History {
public:
    static constexpr int STORE_AFTER = 40;  // ms
    static constexpr size_t MAX_WAITING = 50000;
    static constexpr size_t MAX_AT_ONCE = 5000;  // events in one Store(), which bounds its time
    static constexpr size_t KEPT_ASIDE = 3;
    static constexpr unsigned MAX_ROWS = 10000;   // in one answer
    static constexpr unsigned MAX_LOOKS = 20000;  // events that one search looks at

    explicit History(HistorySettings settings);
    ~History();
    History(const History&) = delete;
    History& operator=(const History&) = delete;

    // Opens the file and records since when nothing was heard; if that fails, Store() tries again.
    // Throws std::runtime_error if another program uses the file.
    void Open(int64_t now);

    // Queues an event for the next Store().
    void Add(Event event);

    // Whether Store() has something to do.
    bool IsWaiting() const { return !m_waiting.empty(); }

    // Stores the queued events. Call it again after a while if IsWaiting() remains true.
    void Store(int64_t now);

    // Records that the program is alive, and drops a part of what is too old or too much. Call it
    // every few seconds.
    void Keep(int64_t now);

    struct Query {
        std::optional<uint32_t> tag;  // none: everything
        int64_t from = 0;
        int64_t until = std::numeric_limits<int64_t>::max();
        int64_t before_id = std::numeric_limits<int64_t>::max();  // only events before that one
        unsigned limit = 1000;                                    // at most MAX_ROWS
        std::function<bool(const Event&)> fits = nullptr;         // null: all do
    };
    struct Answer {
        std::vector<Event> events;     // the last one first
        bool more = false;             // older ones were left out by a limit
        int64_t last_id = 0;           // all from this one on were looked at
        std::optional<Event> earlier;  // with a tag: the last level of the pin before `from`
        std::vector<Gap> gaps;
        std::vector<Event> set_backs;  // of the clock, the latest ones, newest first
    };
    // None if the history can't be read.
    std::optional<Answer> Find(const Query& query, int64_t now);

    // Empty if all is well.
    const std::string& Problem() const { return m_problem; }
    // What happened to an earlier file; empty if nothing did.
    const std::string& Notice() const { return m_notice; }
    bool IsInMemory() const { return m_settings.file.empty(); }
    int64_t Rows() const { return m_rows; }
    int64_t Oldest() const { return m_oldest; }  // 0: nothing there
    int64_t Lost() const { return m_lost; }      // events that found no room while waiting
    int64_t Bytes();

    // Is called for each stored event with its delay in ms.
    std::function<void(int64_t)> on_stored;

private:
    struct CloseDatabase {
        void operator()(sqlite3* db) const;
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const;
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

    // Device and inode.
    using FileId = std::pair<uint64_t, uint64_t>;

    static constexpr int64_t SET_BACK = 1000;  // ms; less may be the disorder of two messages

    // Events with identifiers from begin to before end.
    struct Part {
        int64_t begin = 0;
        int64_t end = 0;
    };

    bool Lock();
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
    void NoteClock(int64_t time);
    bool ReadSetBacks(Answer& answer);
    bool ReadEvents(const Query& query, Answer& answer);
    Part NarrowTo(Part part, const Query& query);
    bool ReadPart(const Part& part, const Query& query, Answer& answer);
    bool ReadEarlier(int64_t before_id, const Query& query, Answer& answer);
    bool ReadGaps(const Query& query, Answer& answer);
    bool IsTakenAway() const;
    void LetGo(int64_t now);
    bool Drop(int64_t now);
    void Trouble();
    void Recover(int64_t now);
    bool IsOurs() const;
    void PutAside(int64_t now);
    void RemoveOldDamaged() const;
    void Close();

    HistorySettings m_settings;
    Descriptor m_lock;
    std::unique_ptr<sqlite3, CloseDatabase> m_db;
    Statement m_insert;
    Statement m_alive;
    std::deque<Event> m_waiting;
    int64_t m_next = 1;
    int64_t m_latest = 0;  // time of the last event
    int64_t m_rows = 0;
    int64_t m_oldest = 0;
    int64_t m_lost = 0;
    int64_t m_lost_from = 0;  // 0: nothing was lost since the last time that events were stored
    int64_t m_lost_until = 0;
    int64_t m_start = 0;          // since when events are kept; 0: the file knows it
    std::string m_before;         // why the file lacks what happened before
    std::optional<FileId> m_log;  // the file's write-ahead log
    int64_t m_retry = 0;
    int m_code = 0;
    bool m_opened = false;   // the file was a history once, whatever it looks like now
    bool m_foreign = false;  // the file belongs to another program
    std::string m_problem;
    std::string m_notice;
};
