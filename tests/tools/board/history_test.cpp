// The history, and damage to its file.
#include "tools/board/History.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "tools/board/PinTimes.h"

namespace {

namespace fs = std::filesystem;

const int64_t START = 1'800'000'000'000;
const uint32_t PIN = 0x1020D;
const int64_t AGAIN = 2001;  // ms after which a faulty file is tried again

enum Outcome { KEPT, ANEW, ALONE };
struct Damage {
    const char* what;
    bool running;  // the file is damaged while it is open
    Outcome outcome;
    const char* told;  // part of the message
    std::function<void(uintmax_t size)> harm;
};

class HistoryTest : public testing::Test {
protected:
    HistoryTest() { settings.file = (folder / "h.db").string(); }
    ~HistoryTest() override { fs::remove_all(folder); }

    static void AddTold(History& history, int64_t time, bool low) {
        Event event;
        event.time = time;
        event.tag = PIN;
        event.low = low;
        event.host = "10.77.0.1";
        history.Add(event);
    }

    void Fill(int count) {
        History history(settings);
        history.Open(START);
        for (int i = 0; i < count; ++i) {
            AddTold(history, START + i, i % 2 == 0);
        }
        history.Store(START + count);
        ASSERT_EQ(history.Problem(), "");
    }

    void Overwrite(uintmax_t from, uintmax_t length) {
        std::fstream file(File(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(from));
        file << std::string(length, 'x');
    }

    void Cut(uintmax_t length) { fs::resize_file(File(), length); }

    std::string File(const char* more = "") const { return settings.file + more; }

    // A database of another program: ours without its application ID.
    std::string Foreign() {
        fs::copy_file(File(), File(".foreign"));
        std::fstream file(File(".foreign"), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(68);
        file << "else";
        return File(".foreign");
    }

    // Simulates some seconds of the program, with four changes.
    static void Live(History& history, int64_t& now) {
        for (int i = 0; i < 4; ++i, now += AGAIN) {
            AddTold(history, now, true);
            history.Store(now);
            history.Find({PIN}, now);
            history.Keep(now);
        }
        history.Store(now);
    }

    static size_t CountOf(History& history, int64_t now) {
        History::Query query;
        query.tag = PIN;
        query.limit = HistorySearch::MAX_ROWS;
        const auto answer = history.Find(query, now);
        return answer ? answer->events.size() : 0;
    }

    const fs::path folder = fs::temp_directory_path() / ("history-" + std::to_string(getpid()));
    const bool made = fs::create_directory(folder);
    HistorySettings settings;

    std::vector<Damage> Damages();
};

std::vector<Damage> HistoryTest::Damages() {
    return {
        {"nothing", false, KEPT, "", [](uintmax_t) {}},
        {"log", false, KEPT, "", [&](uintmax_t) { std::ofstream(File("-wal")) << "no log"; }},
        {"begin", true, KEPT, "", [&](uintmax_t) { Overwrite(0, 100); }},
        {"header", false, ANEW, "not a database; the", [&](uintmax_t) { Overwrite(0, 60); }},
        {"cut off", false, ANEW, ".damaged-", [&](uintmax_t) { Cut(100); }},
        {"cut in half", false, ANEW, ".damaged-", [&](uintmax_t size) { Cut(size / 2); }},
        {"empty", false, ANEW, "", [&](uintmax_t) { Cut(0); }},
        {"schema", false, ANEW, ".damaged-", [&](uintmax_t) { Overwrite(100, 3900); }},
        {"pages", false, ANEW, ".damaged-", [&](uintmax_t size) { Overwrite(4096, size - 4096); }},
        {"pages", true, ANEW, ".damaged-", [&](uintmax_t size) { Overwrite(4096, size - 4096); }},
        {"removed", true, ANEW, "was removed", [&](uintmax_t) { fs::remove(File()); }},
        {"mark", false, ALONE, "left alone", [&](uintmax_t) { Overwrite(0, 100); }},
        {"folder", false, ALONE, "unable to open",
         [&](uintmax_t) { fs::remove(File()) && fs::create_directory(File()); }},
        {"another's", false, ALONE, "left alone",
         [&](uintmax_t) {
             fs::copy_file(Foreign(), File(), fs::copy_options::overwrite_existing);
         }},
    };
}

// Whatever is wrong with the file, the program continues, reports it, and stores new events.
TEST_F(HistoryTest, SurvivesDamagedFiles) {
    for (const Damage& row : Damages()) {
        SCOPED_TRACE(std::string(row.what) + (row.running ? ", running" : ""));
        fs::remove_all(folder);
        fs::create_directory(folder);
        Fill(600);
        for (char i = '1'; i <= '5'; ++i) {
            std::ofstream(File(".damaged-100000000") + i) << "earlier";
            std::ofstream(File(".damaged-100000000") + i + "-wal") << "its log";
        }
        History history(settings);
        if (row.running) {
            history.Open(START + 5000);
        }
        row.harm(fs::file_size(File()));
        if (!row.running) {
            history.Open(START + 5000);
        }
        int64_t now = START + 6000;
        Live(history, now);
        EXPECT_NE((history.Problem() + history.Notice()).find(row.told), std::string::npos)
            << history.Problem() << history.Notice();
        EXPECT_EQ(history.Problem().empty(), row.outcome != ALONE);
        const bool is_aside = history.Notice().find(".damaged-") != std::string::npos;
        for (char i = '1'; i <= '5'; ++i) {
            const fs::path earlier = File(".damaged-100000000") + i;
            EXPECT_EQ(fs::exists(earlier), !is_aside || i >= '4') << earlier;
            EXPECT_EQ(fs::exists(earlier.string() + "-wal"), !is_aside || i >= '4');
        }
        const size_t count = CountOf(history, now);
        EXPECT_TRUE(row.outcome == KEPT   ? count == 604
                    : row.outcome == ANEW ? count == 3 || count == 4
                                          : count == 0)
            << count;
        if (row.outcome == ALONE) {  // until somebody removes it
            fs::remove_all(File());
            Live(history, now);
            EXPECT_EQ(history.Problem(), "");
            EXPECT_EQ(CountOf(history, now), 8U);
        }
    }
}

// The log of the replaced file must not be applied to the other one.
TEST_F(HistoryTest, ContinuesAFileThatReplacesIt) {
    Fill(600);
    fs::copy_file(File(), File(".old"));
    History history(settings);
    history.Open(START + 5000);
    int64_t now = START + 6000;
    Live(history, now);
    fs::rename(File(".old"), File());
    const int64_t replaced = now;
    Live(history, now);
    const auto answer = history.Find({}, now);
    ASSERT_TRUE(answer);
    EXPECT_EQ(CountOf(history, now), 603U);
    ASSERT_EQ(answer->gaps.size(), 1U);
    EXPECT_EQ(answer->gaps[0].from, START + 599);
    EXPECT_EQ(answer->gaps[0].until, replaced);
}

// Events dropped while the file could not be written leave a gap. So does the time before the
// start, however late the file could be opened.
TEST_F(HistoryTest, RecordsGaps) {
    Fill(10);
    fs::rename(File(), File(".away"));
    fs::create_directory(File());
    History history(settings);
    history.Open(START + 5000);
    const int excess = 70;
    for (size_t i = 0; i < History::MAX_WAITING + excess; ++i) {
        AddTold(history, START + 6000 + static_cast<int64_t>(i), i % 2 == 0);
    }
    int64_t now = START + 100'000;
    history.Store(now);
    EXPECT_NE(history.Problem(), "");
    EXPECT_FALSE(history.Find({PIN}, now));
    fs::remove(File());
    fs::rename(File(".away"), File());
    now -= 50'000;  // the clock is set back as well
    while (history.IsWaiting() && history.Lost() == excess) {
        const int64_t rows = history.Rows();
        history.Store(now += 50);
        ASSERT_GT(history.Rows(), rows);
    }
    const auto answer = history.Find({}, now);
    ASSERT_TRUE(answer);
    ASSERT_EQ(answer->gaps.size(), 2U);
    EXPECT_EQ(answer->gaps[0].from, START + 9);
    EXPECT_EQ(answer->gaps[0].until, START + 5000);
    EXPECT_EQ(answer->gaps[1].from, START + 6000);
    EXPECT_EQ(answer->gaps[1].until, START + 6000 + excess - 1);
    EXPECT_TRUE(answer->set_backs.empty()) << "the gaps are where they were";
}

// The order is that in which things happened, page by page, whatever the clock said.
TEST_F(HistoryTest, NotesAClockThatIsSetBack) {
    const int64_t hour = 3600'000;
    History history(settings);
    history.Open(START);
    for (const int64_t time :
         {START + hour, START + hour + 5, START + hour + 1, START, START + 7}) {
        AddTold(history, time, true);
    }
    history.Store(START);
    History::Query query;
    query.limit = 2;
    std::vector<int64_t> times;
    for (auto answer = history.Find(query, START); answer && !answer->events.empty();
         answer = history.Find(query, START)) {
        ASSERT_EQ(answer->set_backs.size(), 1U);
        EXPECT_EQ(answer->set_backs[0].duration, hour + 1);
        for (const Event& event : answer->events) {
            times.push_back(event.time - START);
            query.before_id = event.id;
        }
    }
    EXPECT_EQ(times, (std::vector<int64_t>{7, 0, 0, hour + 1, hour + 5, hour}));
    query = {};
    query.tag = PIN;
    query.from = START + 5;
    query.until = START + hour;
    const auto answer = history.Find(query, START);
    ASSERT_EQ(answer->events.size(), 2U);
    EXPECT_EQ(answer->events[0].time, START + 7);
    EXPECT_FALSE(answer->earlier);
}

// H, L, again L, a gap in which it is told, L after it; the clock is set back by an hour before the
// end.
TEST_F(HistoryTest, StretchesOfAPin) {
    History history(settings);
    history.Open(START);
    const auto note = [&](EventKind kind, int64_t time) {
        Event event;
        event.kind = kind;
        event.time = START + time;
        event.text = "x";
        history.Add(event);
    };
    AddTold(history, START + 1000, false);
    AddTold(history, START + 3000, true);
    AddTold(history, START + 4000, true);
    note(EventKind::GapBegin, 6000);
    AddTold(history, START + 7000, true);
    note(EventKind::GapEnd, 8000);
    AddTold(history, START + 9000, true);
    AddTold(history, START + 3600000, false);
    AddTold(history, START + 20000, false);
    history.Store(START + 4000000);
    History::Query query;
    query.tag = PIN;
    query.from = START;
    query.until = START + 30000;
    const LevelTimes sum = SumOf(
        StretchesOf(*history.Find(query, START + 4000000), START, query.until), START, query.until);
    EXPECT_EQ(sum.high_ms, 2000 + 10000);
    EXPECT_EQ(sum.low_ms, 3000 + 11000);
    EXPECT_EQ(sum.unknown_ms, 1000 + 3000);
    EXPECT_EQ(sum.became_low, 1U);
    EXPECT_EQ(sum.became_high, 1U);
    query.from = START + 10000;  // it was low before
    const std::vector<Stretch> later =
        StretchesOf(*history.Find(query, START + 4000000), query.from, query.until);
    ASSERT_EQ(later.size(), 2U);
    EXPECT_EQ(later[0].low, true);
    EXPECT_EQ(later[0].until, START + 20000);
}

}  // namespace
