// What happened on the bus, stored in a file.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "tools/board/Database.h"
#include "tools/board/Event.h"
#include "tools/board/HistoryFile.h"
#include "tools/board/HistorySearch.h"

struct HistorySettings {
    std::string file;  // empty: in memory, gone with the program
    int64_t keep_ms = 90LL * 24 * 3600 * 1000;
    int64_t keep_bytes = 1LL << 30;
};

// Events are collected and stored in one transaction, within STORE_AFTER of the first. Problem()
// reports trouble with the file, which affects only the history: events wait, up to a bound, while
// the disk is full; a damaged history is set aside for a new one; a missing one is created again;
// one that another has replaced is let go for the other, with a gap; a file that is something else
// is left alone and checked again. Times are milliseconds since 1970, of a clock that may be set;
// the order of events is that in which they were added.
class History {
public:
    static constexpr int STORE_AFTER = 40;  // ms
    static constexpr size_t MAX_WAITING = 50000;
    static constexpr size_t MAX_AT_ONCE = 5000;  // events in one Store(), which bounds its time

    using Query = HistorySearch::Query;
    using Answer = HistorySearch::Answer;

    explicit History(HistorySettings settings);

    // Opens the file and records since when nothing was heard; if that fails, Store() tries again.
    // Throws std::runtime_error if another program uses the file.
    void Open(int64_t now);

    // Queues an event for the next Store().
    void Add(Event event);

    // Whether Store() has something to do.
    bool IsWaiting() const { return !m_waiting.empty() || !m_opening.empty(); }

    // Stores the queued events. Call it again after a while if IsWaiting() remains true.
    void Store(int64_t now);

    // Records that the program is alive, and drops a part of what is too old or too much. Call it
    // every few seconds.
    void Keep(int64_t now);

    // None if the history can't be read.
    std::optional<Answer> Find(const Query& query, int64_t now);

    // Empty if all is well.
    const std::string& Problem() const { return m_problem; }
    // What happened to an earlier file; empty if nothing did.
    const std::string& Notice() const { return m_notice; }
    bool IsInMemory() const { return m_file.IsInMemory(); }
    int64_t Rows() const { return m_rows; }
    int64_t Lost() const { return m_lost; }  // events that found no room while waiting

    // Is called for each event that was added, once it is stored, with its delay in ms.
    std::function<void(int64_t)> on_stored;

private:
    bool OpenFile();
    bool Prepare();
    bool NoteStart();
    void CloseFile();
    bool IsDue(int64_t now) const;
    bool StoreSome(size_t count);
    bool Insert(const Event& event, int64_t id);
    int64_t Bytes();
    bool Drop(int64_t now);
    void ReadOldest();
    void Recover(int64_t now);
    void BeginAnew(int64_t now);

    const HistorySettings m_settings;
    HistoryFile m_file;
    Database::Statement m_insert;
    Database::Statement m_alive;
    std::deque<Event> m_opening;  // what is to be stored of the time before the file was opened
    std::deque<Event> m_waiting;
    int64_t m_next = 1;    // identifier
    int64_t m_latest = 0;  // time of the last event
    int64_t m_rows = 0;
    int64_t m_oldest = 0;  // time of the first event in the file; 0: there is none
    int64_t m_lost = 0;
    int64_t m_lost_from = 0;  // 0: nothing was lost since the last time that events were stored
    int64_t m_lost_until = 0;
    int64_t m_start = 0;   // since when events are kept; 0: the file knows it
    std::string m_before;  // why the file lacks what happened before
    int64_t m_retry = 0;
    std::string m_problem;
    std::string m_notice;
};
