// Searches a history.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "tools/board/Database.h"
#include "tools/board/Event.h"

// One search. It takes bounded time: it looks at the newest events first, and tells where to go on.
class HistorySearch {
public:
    static constexpr unsigned MAX_ROWS = 10000;   // in one answer
    static constexpr unsigned MAX_LOOKS = 20000;  // events that one search looks at

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

    // Both must outlive it. The database must be that of an open HistoryFile.
    HistorySearch(Database& db, const Query& query) : m_db(db), m_query(query) {}

    // None if the history can't be read, as the database says.
    std::optional<Answer> Find();

    // The latest gaps, oldest first; none if they can't be read.
    static std::optional<std::vector<Gap>> ReadGaps(Database& db);

private:
    // Events with identifiers from begin to before end.
    struct Part {
        int64_t begin = 0;
        int64_t end = 0;
    };

    bool ReadSetBacks();
    bool ReadEvents();
    Part NarrowTo(Part part);
    bool ReadPart(const Part& part);
    bool ReadEarlier(int64_t before_id);
    bool AddGaps();

    Database& m_db;
    const Query& m_query;
    Answer m_answer;
};
