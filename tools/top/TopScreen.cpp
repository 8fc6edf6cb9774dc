#include "tools/top/TopScreen.h"

#include <curses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <stdexcept>

#include "tools/bus/Interface.h"

namespace {

const int HEADING_LINES = 3;
const int HELP_LINES = 1;
const std::chrono::milliseconds LIT(1500);  // how long a change is highlighted
const short COLOR_LOW = 1;
const short COLOR_CHANGED = 2;
const wchar_t ESCAPE = 27;

// What can't be shown is a '?'.
std::wstring Decode(const std::string& text) {
    std::wstring shown;
    std::mbstate_t state = {};
    for (const char* at = text.c_str(); *at != '\0';) {
        wchar_t c = L'?';
        const size_t got = mbrtowc(&c, at, MB_CUR_MAX, &state);
        const bool is_valid = got != static_cast<size_t>(-1) && got != static_cast<size_t>(-2);
        if (!is_valid) {
            state = {};
        }
        shown += is_valid && wcwidth(c) >= 0 ? c : L'?';
        at += is_valid ? std::max<size_t>(got, 1) : 1;
    }
    return shown;
}

// The text fitted to that many columns, truncated or padded.
std::wstring Fit(const std::wstring& text, int columns) {
    std::wstring shown;
    int used = 0;
    for (const wchar_t c : text) {
        if (used + wcwidth(c) > columns) {
            break;
        }
        used += wcwidth(c);
        shown += c;
    }
    return shown.append(static_cast<size_t>(std::max(columns - used, 0)), L' ');
}

std::wstring Fit(const std::string& text, int columns) {
    return Fit(Decode(text), columns);
}

// The columns of a row. On a narrow terminal the last ones are omitted.
struct Cells {
    std::string mark;
    std::string name;
    std::string pin;
    std::string level;
    std::string age;
    std::string status;
    std::string writer;
};

std::wstring RowText(const Cells& cells, int columns) {
    const bool has_writer = columns >= 76;
    const bool has_status = columns >= 54;
    const int pin_width = has_status ? 16 : 12;
    std::wstring end =
        L" " + Fit(cells.pin, pin_width) + L" " + Fit(cells.level, 5) + L" " + Fit(cells.age, 8);
    end += has_status ? L" " + Fit(cells.status, 8) : L"";
    end += has_writer ? Fit(cells.writer, 15) : L"";
    const int name_width = std::max(columns - 2 - static_cast<int>(end.size()), 10);
    return Fit(cells.mark, 2) + Fit(cells.name, name_width) + end;
}

bool IsColorUnwanted() {
    const char* const variable = getenv("NO_COLOR");
    return variable != nullptr && *variable != '\0';
}

class CursesScreen : public TopScreen {
public:
    CursesScreen() {
        setlocale(LC_CTYPE, "");
        m_screen = newterm(nullptr, stdout, stdin);
        if (m_screen == nullptr) {
            throw std::runtime_error("this terminal (TERM) can't be drawn on");
        }
        set_escdelay(25);
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
        if (has_colors() && !IsColorUnwanted() && start_color() == OK) {
            use_default_colors();
            init_pair(COLOR_LOW, COLOR_GREEN, -1);
            init_pair(COLOR_CHANGED, COLOR_YELLOW, -1);
            m_has_colors = true;
        }
    }

    ~CursesScreen() override {
        endwin();
        delscreen(m_screen);
    }

    TopKey TakeKey() override;
    void Draw(const TopHeading& heading, TopTable& table, size_t& first, TimePoint now) override;

    size_t VisibleRows() const override {
        return static_cast<size_t>(std::max(LINES - HEADING_LINES - HELP_LINES, 0));
    }

    void Resize() override {
        winsize size = {};
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
            resizeterm(size.ws_row, size.ws_col);
        }
        clearok(stdscr, TRUE);
    }

    void Suspend() override { endwin(); }

private:
    void DrawHeading(const TopHeading& heading, const TopTable& table);
    void DrawRow(int line, TopTable& table, const TopRow& row, TimePoint now);
    void DrawLine(int line, const std::wstring& text, attr_t attributes);
    attr_t Color(short pair) const { return m_has_colors ? COLOR_PAIR(pair) : 0; }

    SCREEN* m_screen;
    bool m_has_colors = false;
};

TopKey CursesScreen::TakeKey() {
    using Kind = TopKey::Kind;
    wint_t key = 0;
    const int result = get_wch(&key);
    if (result == ERR) {
        return {};
    }
    if (result == KEY_CODE_YES) {
        switch (key) {
            case KEY_UP:
                return {Kind::Up, {}};
            case KEY_DOWN:
                return {Kind::Down, {}};
            case KEY_PPAGE:
                return {Kind::PageUp, {}};
            case KEY_NPAGE:
                return {Kind::PageDown, {}};
            case KEY_BACKSPACE:
                return {Kind::Erase, {}};
            case KEY_F(10):
                return {Kind::Quit, {}};
            default:
                return {Kind::Text, {}};  // types nothing
        }
    }
    switch (static_cast<wchar_t>(key)) {
        case L'\t':
            return {Kind::Sort, {}};
        case L' ':
            return {Kind::Pause, {}};
        case L'\b':
        case L'\x7F':
            return {Kind::Erase, {}};
        case ESCAPE:
            return {Kind::Clear, {}};
        default:
            break;
    }
    char bytes[16] = "";
    std::mbstate_t state = {};
    const size_t size = wcrtomb(bytes, static_cast<wchar_t>(key), &state);
    const bool is_text = key >= L' ' && size != static_cast<size_t>(-1);
    return {Kind::Text, is_text ? std::string(bytes, size) : std::string()};
}

void CursesScreen::DrawLine(int line, const std::wstring& text, attr_t attributes) {
    attrset(static_cast<int>(attributes));
    mvaddwstr(line, 0, Fit(text, COLS).c_str());
    attrset(A_NORMAL);
}

void CursesScreen::DrawHeading(const TopHeading& heading, const TopTable& table) {
    char counts[80];
    snprintf(counts, sizeof counts, "  %zu %s, %.0f changes/s", heading.pins,
             heading.pins == 1 ? "pin" : "pins", heading.changes);
    DrawLine(0,
             Decode(heading.bus + counts + (heading.is_paused ? "  PAUSED" : "") +
                    (heading.note.empty() ? "" : "  " + heading.note)),
             A_BOLD);
    const std::string filter = "filter: " + (table.Filter().empty() ? "-" : table.Filter());
    DrawLine(1,
             Decode(filter + "  shown: " + std::to_string(table.Rows().size()) +
                    "  sorted by: " + SortText(table.Sort())),
             A_NORMAL);
}

void CursesScreen::DrawRow(int line, TopTable& table, const TopRow& row, TimePoint now) {
    const bool is_lit = row.changed != TimePoint::min() && now - row.changed < LIT;
    const bool is_low = row.level == Level::Low;
    const Cells cells = {is_lit ? "*" : "",
                         table.NameOf(row),
                         table.PinOf(row),
                         !row.level ? "?"
                         : is_low   ? "LOW"
                                    : "high",
                         AgeText(row, now),
                         StatusText(row),
                         row.writer == 0 ? "" : HostText(row.writer)};
    DrawLine(line, RowText(cells, COLS),
             is_lit   ? A_BOLD | Color(COLOR_CHANGED)
             : is_low ? Color(COLOR_LOW)
                      : A_NORMAL);
}

void CursesScreen::Draw(const TopHeading& heading, TopTable& table, size_t& first, TimePoint now) {
    const size_t count = table.Rows().size();
    const size_t visible = VisibleRows();
    first = std::min(first, count > visible ? count - visible : 0);
    erase();
    DrawHeading(heading, table);
    DrawLine(HEADING_LINES - 1,
             RowText({"", "NAME", "PIN", "LEVEL", "AGE", "STATUS", "WRITTEN BY"}, COLS), A_REVERSE);
    for (size_t i = 0; i < std::min(visible, count - first); ++i) {
        DrawRow(HEADING_LINES + static_cast<int>(i), table, table.Rows()[first + i], now);
    }
    DrawLine(LINES - 1,
             L"type to filter  Ctrl-C quit  Esc all  Tab sort  Space pause  Up/Down/PgUp/PgDn",
             A_REVERSE);
    refresh();
}

}  // namespace

std::unique_ptr<TopScreen> TopScreen::Open() {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        throw std::runtime_error("standard input and output are no terminal");
    }
    return std::make_unique<CursesScreen>();
}
