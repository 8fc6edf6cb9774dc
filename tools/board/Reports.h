// What people ask about days: how long and how often a pin had a level, and when.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/board/Access.h"
#include "tools/board/Board.h"
#include "tools/board/History.h"
#include "tools/board/Http.h"
#include "tools/board/PinTimes.h"

// Answers for one pin, a group or all, of those that the visitor may read, as JSON or CSV. One
// answer takes bounded time: `next` in it is the pin after which to go on. All throw
// std::invalid_argument for a query that can't be read.
class Reports {
public:
    static constexpr size_t MAX_DAYS = 31;
    static constexpr size_t MAX_COST = 20000;  // rows of the history that one answer reads, or so

    // All must outlive it.
    Reports(Board& board, History& history, const Access& access)
        : m_board(board), m_history(history), m_access(access) {}

    // Sums by pin and day. The visitor's days begin and end at `days`, because the board does not
    // know the visitor's time zone.
    HttpResponse Days(const HttpRequest& request);

    // Every time in which a pin had a level, with who was the cause.
    HttpResponse Spells(const HttpRequest& request);

private:
    struct Pin {
        uint32_t tag = 0;
        bool is_complete = true;  // everything of that time was looked at
        std::vector<Stretch> stretches;
    };
    struct Found {
        std::vector<Pin> pins;
        std::vector<Gap> gaps;
        std::string next;  // empty: these are all
    };

    std::optional<Found> Find(const HttpRequest& request, int64_t from, int64_t until);
    std::vector<uint32_t> TagsOf(const HttpRequest& request) const;
    Json HeadOf(const Found& found) const;

    Board& m_board;
    History& m_history;
    const Access& m_access;
};
