// top: every known pin, on a screen that follows the bus.

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "tools/base/Signals.h"
#include "tools/bus/PinFollower.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/top/TopScreen.h"

namespace {

const double FRAME = 0.2;       // seconds between drawings, to bound the cost of a flood
const double JSON_SECONDS = 2;  // to listen, by default

class Top {
public:
    explicit Top(const Options& options)
        : m_options(options),
          m_signals({SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP}),
          m_follower(options.bus),
          m_table(options.names) {
        m_follower.on_change = [this](const PinChange& change) {
            m_changes += change.before && change.IsNewLevel() ? 1 : 0;
        };
        for (const PinRef& pins : options.pins) {
            m_follower.Want(pins);
        }
    }

    int RunScreen();
    int RunJson();

private:
    void Wait(TimePoint until);
    std::string Note() const;
    void TakeSignals();
    void TakeKeys();
    void Handle(const TopKey& key);
    void Draw(TimePoint now);
    TimePoint End(double seconds) const { return After(m_options.seconds.value_or(seconds)); }

    const Options& m_options;
    Signals m_signals;
    PinFollower m_follower;
    TopTable m_table;
    std::unique_ptr<TopScreen> m_screen;
    TopHeading m_heading;
    size_t m_first = 0;  // the topmost row
    size_t m_changes = 0;
    TimePoint m_counted = Now();
    TimePoint m_drawn = Now();  // the time of the rows
    bool m_redraw = true;
    bool m_end = false;
};

// Until something has to be done, at most until then.
void Top::Wait(TimePoint until) {
    std::vector<pollfd> fds = {{m_signals.Get(), POLLIN, 0}};
    if (m_screen != nullptr) {
        fds.push_back({STDIN_FILENO, POLLIN, 0});
    }
    for (const int descriptor : m_follower.Descriptors()) {
        fds.push_back({descriptor, POLLIN, 0});
    }
    poll(fds.data(), fds.size(), MillisecondsUntil(std::min(until, m_follower.NextTime())));
    if (m_screen != nullptr && (fds[1].revents & (POLLHUP | POLLERR)) != 0) {
        m_end = true;  // the terminal is gone
    }
    TakeSignals();
    m_follower.Serve();
}

// The bus can't be relied on, or else two devices have one address.
std::string Top::Note() const {
    const std::string problem = m_follower.Problem();
    const auto shared = m_follower.Shared();
    return !problem.empty() || shared.empty()
               ? problem
               : SharedText(shared.begin()->first, shared.begin()->second, m_options.names);
}

void Top::TakeSignals() {
    while (const auto signal = m_signals.Take()) {
        if (*signal == SIGWINCH) {
            if (m_screen != nullptr) {
                m_screen->Resize();
            }
            m_redraw = true;
        } else if (*signal == SIGTSTP) {
            if (m_screen != nullptr) {
                m_screen->Suspend();
            }
            raise(SIGSTOP);
            // cppcheck-suppress unreachableCode  ; execution continues here after SIGCONT
            m_redraw = true;
        } else {
            m_end = true;
        }
    }
}

void Top::TakeKeys() {
    for (TopKey key = m_screen->TakeKey(); key.kind != TopKey::Kind::None;
         key = m_screen->TakeKey()) {
        Handle(key);
        m_redraw = true;
    }
}

void Top::Handle(const TopKey& key) {
    using Kind = TopKey::Kind;
    const size_t page = std::max<size_t>(m_screen->VisibleRows(), 1);
    std::string filter = m_table.Filter();
    switch (key.kind) {
        case Kind::Text:
            m_table.SetFilter(filter + key.text);
            break;
        case Kind::Erase:
            while (!filter.empty() && (filter.back() & 0xC0) == 0x80) {
                filter.pop_back();  // the other bytes of a character
            }
            m_table.SetFilter(filter.substr(0, filter.empty() ? 0 : filter.size() - 1));
            break;
        case Kind::Clear:
            m_table.SetFilter("");
            break;
        case Kind::Sort:
            m_table.SetSort(
                static_cast<TopSort>((static_cast<int>(m_table.Sort()) + 1) % TOP_SORTS));
            break;
        case Kind::Pause:
            m_heading.is_paused = !m_heading.is_paused;
            break;
        case Kind::Up:
            m_first -= std::min<size_t>(m_first, 1);
            break;
        case Kind::Down:
            ++m_first;
            break;
        case Kind::PageUp:
            m_first -= std::min(m_first, page);
            break;
        case Kind::PageDown:
            m_first += page;
            break;
        case Kind::Quit:
            m_end = true;
            break;
        case Kind::None:
            break;
    }
}

// While paused, the rows keep their content; they can still be filtered and sorted.
void Top::Draw(TimePoint now) {
    const double seconds = std::chrono::duration<double>(now - m_counted).count();
    if (seconds >= 1) {
        m_heading.changes = static_cast<double>(m_changes) / seconds;
        m_changes = 0;
        m_counted = now;
    }
    m_heading.pins = m_follower.States().Count();
    m_heading.note = Note();
    if (!m_heading.is_paused) {
        m_table.Update(m_follower.States());
        m_drawn = now;
    }
    m_table.Arrange();
    m_screen->Draw(m_heading, m_table, m_first, m_drawn);
    m_redraw = false;
}

int Top::RunScreen() {
    try {
        m_screen = TopScreen::Open();
    } catch (const std::runtime_error& error) {
        throw Failure(STATUS_FAILED, std::string("no screen: ") + error.what() + "; use --json");
    }
    if (m_screen == nullptr) {
        throw Failure(STATUS_FAILED, "this build has no screen (no ncursesw); use --json");
    }
    m_heading.bus = HostText(m_options.bus.group) +
                    (m_options.bus.iface.empty() ? "" : " on " + m_options.bus.iface);
    const TimePoint end = End(1e9);
    TimePoint frame = Now();
    while (!m_end && Now() < end) {
        if (m_redraw || Now() >= frame) {
            Draw(Now());
            frame = After(FRAME);
        }
        Wait(std::min(frame, end));
        TakeKeys();
    }
    return STATUS_DONE;
}

int Top::RunJson() {
    Output output(m_options);
    const TimePoint end = End(JSON_SECONDS);
    while (!m_end && Now() < end) {
        Wait(end);
    }
    m_table.Update(m_follower.States());
    m_table.Arrange();
    for (const TopRow& row : m_table.Rows()) {
        output.Write(m_table.ToJson(*m_follower.States().Find(row.tag), row.tag) + "\n");
    }
    NoteShared(m_follower.Shared(), m_options);
    return STATUS_DONE;
}

}  // namespace

int RunTop(const Options& options) {
    Top top(options);
    return options.json ? top.RunJson() : top.RunScreen();
}
