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

// The text fitted to that many columns, truncated or padded. What can't be shown is a '?'.
std::wstring Fit(const std::string& text, int columns) {
    std::wstring shown;
    std::mbstate_t state = {};
    int used = 0;
    for (const char* at = text.c_str(); *at != '\0';) {
        wchar_t c = L'?';
        const size_t got = mbrtowc(&c, at, MB_CUR_MAX, &state);
        const bool is_valid = got != static_cast<size_t>(-1) && got != static_cast<size_t>(-2);
        if (!is_valid) {
            state = {};
        }
        c = is_valid && wcwidth(c) >= 0 ? c : L'?';
        if (used + wcwidth(c) > columns) {
            break;
        }
        used += wcwidth(c);
        shown += c;
        at += is_valid ? std::max<size_t>(got, 1) : 1;
    }
    return shown.append(static_cast<size_t>(std::max(columns - used, 0)), L' ');
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
        if (has_colors() && getenv("NO_COLOR") == nullptr && start_color() == OK) {
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
    void DrawLine(int line, const std::string& text, attr_t attributes);
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

void CursesScreen::DrawLine(int line, const std::string& text, attr_t attributes) {
    attrset(static_cast<int>(attributes));
    mvaddwstr(line, 0, Fit(text, COLS).c_str());
    attrset(A_NORMAL);
}

void CursesScreen::DrawHeading(const TopHeading& heading, const TopTable& table) {
    char counts[80];
    snprintf(counts, sizeof counts, "  %zu pins, %.0f changes/s", heading.pins, heading.changes);
    DrawLine(0,
             heading.bus + counts + (heading.is_paused ? "  PAUSED" : "") +
                 (heading.note.empty() ? "" : "  " + heading.note),
             A_BOLD);
    std::string filter = "filter: " + (table.Filter().empty() ? "-" : table.Filter());
    DrawLine(1,
             filter + "  shown: " + std::to_string(table.Rows().size()) +
                 "  sorted by: " + SortText(table.Sort()),
             A_NORMAL);
}

void CursesScreen::DrawRow(int line, TopTable& table, const TopRow& row, TimePoint now) {
    const bool is_lit = row.changed != TimePoint::min() && now - row.changed < LIT;
    const bool is_low = row.level == Level::Low;
    const int name_width = std::max(COLS - 58, 10);
    const std::string level = !row.level ? "?" : is_low ? "LOW" : "high";
    const std::wstring text = Fit(is_lit ? "*" : "", 2) + Fit(table.NameOf(row), name_width) +
                              L" " + Fit(table.PinOf(row), 16) + L" " + Fit(level, 5) + L" " +
                              Fit(AgeText(row, now), 8) + L" " + Fit(StatusText(row), 8) +
                              Fit(row.writer == 0 ? "" : HostText(row.writer), 15);
    const attr_t lit = is_lit ? A_BOLD | Color(COLOR_CHANGED) : A_NORMAL;
    attrset(static_cast<int>(is_lit ? lit : is_low ? Color(COLOR_LOW) : A_NORMAL));
    mvaddnwstr(line, 0, text.c_str(), static_cast<int>(text.size()));
    attrset(A_NORMAL);
}

void CursesScreen::Draw(const TopHeading& heading, TopTable& table, size_t& first, TimePoint now) {
    const size_t count = table.Rows().size();
    const size_t visible = VisibleRows();
    first = std::min(first, count > visible ? count - visible : 0);
    erase();
    DrawHeading(heading, table);
    const std::wstring columns = Fit("", 2) + Fit("NAME", std::max(COLS - 58, 10)) + L" " +
                                 Fit("PIN", 16) + L" LEVEL AGE      STATUS  WRITTEN BY";
    attrset(static_cast<int>(A_REVERSE));
    mvaddwstr(2, 0, columns.c_str());
    hline(' ', COLS);
    attrset(A_NORMAL);
    for (size_t i = 0; i < std::min(visible, count - first); ++i) {
        DrawRow(HEADING_LINES + static_cast<int>(i), table, table.Rows()[first + i], now);
    }
    DrawLine(LINES - 1,
             "type to filter  Esc all  Tab sort  Space pause  Up/Down/PgUp/PgDn  F10 quit",
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
