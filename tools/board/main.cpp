// orvex-board: the board as a program.
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <utility>

#include "protocol/numbers.h"
#include "tools/base/Notify.h"
#include "tools/base/RunMain.h"
#include "tools/board/Access.h"
#include "tools/board/Api.h"
#include "tools/board/Board.h"
#include "tools/board/Entrance.h"
#include "tools/board/HttpServer.h"
#include "tools/board/Json.h"
#include "tools/board/Login.h"
#include "tools/board/Options.h"
#include "tools/board/PasswordQueue.h"

namespace {

using Error = boost::system::error_code;
using Wait = boost::asio::posix::stream_descriptor;

const std::chrono::seconds KEEP_PACE{10};
const std::chrono::seconds BEAT_PACE{5};
const std::chrono::milliseconds STORE_PACE{History::STORE_AFTER};
const std::chrono::milliseconds STORE_AGAIN{500};  // while the history can't be written
const int FIRST_PASSED_SOCKET = 3;

// Empty if systemd gave the program no folder.
std::string StateFile(const char* name) {
    const char* const folder = getenv("STATE_DIRECTORY");
    return folder != nullptr && *folder != '\0' ? std::string(folder) + "/" + name : "";
}

class Program {
public:
    explicit Program(const Options& options);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    void Run();

private:
    static BoardSettings BoardSettingsOf(const Options& options);
    static HistorySettings HistorySettingsOf(const Options& options);
    static AccessSettings AccessSettingsOf(const Options& options);
    static std::string WallsFileOf(const Options& options);
    static Entrance EntranceOf(const Options& options);
    static TlsContext TlsOf(const Options& options);
    void Turn();
    void WatchBus(Wait& wait);
    void WatchControl();
    void StoreSoon();
    void BeatSoon();
    void Keep();
    void TellTrouble();
    void TellDoubts() const;
    void ReloadOnSignal();
    void Reload();
    std::string StatusLine() const;

    const Options m_options;
    boost::asio::io_context m_loop{1};
    Notify m_notify;
    History m_history;
    EventStream m_stream;
    Board m_board;
    Access m_access;
    PasswordQueue m_passwords;
    Login m_login;
    const Entrance m_entrance;
    Metrics m_metrics;
    Walls m_walls;
    Api m_api;
    HttpServer m_server;
    // Sockets that belong to the board. Those of the bus stay the same once they are open; that of
    // the control server is given back before the board may close it.
    std::list<Wait> m_bus;
    Wait m_control{m_loop};
    boost::asio::steady_timer m_due{m_loop};
    boost::asio::steady_timer m_keep{m_loop};
    boost::asio::steady_timer m_beat{m_loop};
    boost::asio::steady_timer m_store{m_loop};
    boost::asio::signal_set m_hangup{m_loop, SIGHUP};
    bool m_storing = false;
    bool m_beating = false;
    std::string m_problem;  // of the history, as it was told
    std::string m_notice;   // the same
};

BoardSettings Program::BoardSettingsOf(const Options& options) {
    BoardSettings settings;
    settings.iface = options.iface;
    in_addr group = {};
    if (inet_pton(AF_INET, options.group.c_str(), &group) == 1) {
        settings.group = ntohl(group.s_addr);
    }
    if (!options.control.empty()) {
        const HostPort server = ParseHostPort(options.control, LINE_PORT);
        in_addr address = {};
        inet_pton(AF_INET, server.host.c_str(), &address);
        settings.control = CSvcAddress(ntohl(address.s_addr), server.port);
    }
    settings.names = Names::Load(options.names);
    return settings;
}

HistorySettings Program::HistorySettingsOf(const Options& options) {
    HistorySettings settings;
    settings.file = !options.db.empty() ? options.db : StateFile("history.db");
    settings.keep_ms = ParseAge(options.keep);
    settings.keep_bytes = settings.file.empty() ? 8 << 20 : ParseSize(options.keep_size);
    return settings;
}

std::string Program::WallsFileOf(const Options& options) {
    return !options.walls.empty() ? options.walls : StateFile("walls.json");
}

AccessSettings Program::AccessSettingsOf(const Options& options) {
    AccessSettings settings;
    settings.allow_set = options.allow_set;
    settings.token_file = options.token_file;
    settings.users_file = options.users;
    settings.base = ParseBase(options.base);
    settings.cookie = "orvex-board-" + std::to_string(ParseHostPort(options.listen).port);
    settings.hosts.insert(options.hosts.begin(), options.hosts.end());
    return settings;
}

Entrance Program::EntranceOf(const Options& options) {
    std::set<std::string> proxies;
    for (const std::string& proxy : options.proxies) {
        proxies.insert(ParseAddress(proxy));
    }
    return Entrance(ParseBase(options.base), proxies);
}

TlsContext Program::TlsOf(const Options& options) {
    return options.certificate.empty() ? nullptr : LoadTls(options.certificate, options.key);
}

Program::~Program() {
    for (Wait& wait : m_bus) {
        wait.release();
    }
    if (m_control.is_open()) {
        m_control.release();
    }
}

Program::Program(const Options& options)
    : m_options(options),
      m_history(HistorySettingsOf(options)),
      m_stream(std::to_string(NowMs())),
      m_board(BoardSettingsOf(options), m_history, m_stream),
      m_access(AccessSettingsOf(options), m_board.GetNames()),
      m_passwords(m_loop),
      m_login(m_access, m_passwords),
      m_entrance(EntranceOf(options)),
      m_metrics(m_board, m_history),
      m_walls(WallsFileOf(options)),
      m_api(m_board, m_history, m_stream, m_access, m_login, m_metrics, m_walls),
      m_server(m_loop, m_stream, [this](HttpRequest& request) {
          if (const std::optional<HttpResponse> elsewhere = m_entrance.Admit(request)) {
              return *elsewhere;
          }
          HttpResponse response = m_api.Handle(request);
          StoreSoon();
          if (response.follow) {
              BeatSoon();
          }
          return response;
      }) {
    m_history.on_stored = [this](int64_t delay) { m_metrics.NoteStored(delay); };
    m_metrics.viewers = [this] { return m_server.Viewers(); };
    m_metrics.viewers_cut = [this] { return m_server.CutOff(); };
    m_server.UseTls(TlsOf(options));
    const char* const pid = getenv("LISTEN_PID");
    const char* const sockets = getenv("LISTEN_FDS");
    if (pid != nullptr && sockets != nullptr && atol(pid) == getpid() && atoi(sockets) == 1) {
        m_server.Listen(FIRST_PASSED_SOCKET);
    } else {
        const HostPort place = ParseHostPort(options.listen);
        m_server.Listen(place.host, place.port);
    }
}

// Serves the bus and the control server, and waits for them again.
void Program::Turn() {
    if (m_control.is_open()) {
        m_control.release();
    }
    const bool more = m_board.Serve();
    StoreSoon();
    if (m_bus.empty()) {
        for (const int socket : m_board.BusSockets()) {
            m_bus.emplace_back(m_loop, socket);
            WatchBus(m_bus.back());
        }
    }
    WatchControl();
    m_notify.Beat();
    m_due.expires_at(more ? Now() : std::min(m_board.NextTime(), m_notify.NextTime()));
    m_due.async_wait([this](const Error& error) {
        if (!error) {
            Turn();
        }
    });
}

void Program::WatchBus(Wait& wait) {
    wait.async_wait(Wait::wait_read, [this, &wait](const Error& error) {
        if (!error) {
            Turn();
            WatchBus(wait);
        }
    });
}

void Program::WatchControl() {
    const ControlServer& control = m_board.Control();
    if (control.GetDescriptor() < 0) {
        return;
    }
    m_control.assign(control.GetDescriptor());
    for (const auto& [event, wait] :
         {std::pair(POLLIN, Wait::wait_read), std::pair(POLLOUT, Wait::wait_write)}) {
        if ((control.Events() & event) != 0) {
            m_control.async_wait(wait, [this](const Error& error) {
                if (!error) {
                    Turn();
                }
            });
        }
    }
}

void Program::StoreSoon() {
    if (m_storing || !m_history.IsWaiting()) {
        return;
    }
    m_storing = true;
    m_store.expires_after(m_history.Problem().empty() ? STORE_PACE : STORE_AGAIN);
    m_store.async_wait([this](const Error& error) {
        m_storing = false;
        if (!error) {
            m_history.Store(NowMs());
            TellTrouble();
            StoreSoon();
        }
    });
}

// While somebody views: the page takes silence for a lost board.
void Program::BeatSoon() {
    if (m_beating) {
        return;
    }
    m_beating = true;
    m_beat.expires_after(BEAT_PACE);
    m_beat.async_wait([this](const Error& error) {
        m_beating = false;
        if (!error && m_server.Viewers() > 0) {
            m_stream.Append("beat", Dump({{"now", NowMs()}, {"viewers", m_server.Viewers()}}),
                            Audience::Everyone());
            BeatSoon();
        }
    });
}

void Program::Keep() {
    m_history.Keep(NowMs());
    m_access.Tend(Now());
    TellTrouble();
    m_notify.Status(StatusLine());
    m_keep.expires_after(KEEP_PACE);
    m_keep.async_wait([this](const Error& error) {
        if (!error) {
            Keep();
        }
    });
}

void Program::TellTrouble() {
    for (const auto& [text, told] :
         {std::pair(&m_history.Problem(), &m_problem), std::pair(&m_history.Notice(), &m_notice)}) {
        if (*told != *text && !text->empty()) {
            fprintf(stderr, "orvex-board: history: %s\n", text->c_str());
        }
        *told = *text;
    }
    m_board.TellStatus();
}

void Program::ReloadOnSignal() {
    m_hangup.async_wait([this](const Error& error, int) {
        if (!error) {
            Reload();
            ReloadOnSignal();
        }
    });
}

// All of it, or nothing.
void Program::Reload() {
    try {
        Names names = Names::Load(m_options.names);
        TlsContext tls = TlsOf(m_options);
        m_access.Reload();
        m_server.UseTls(std::move(tls));
        m_board.Rename(std::move(names));
        printf("orvex-board: the files were read again\n");
        fflush(stdout);
        TellDoubts();
    } catch (const std::exception& error) {
        PrintError("orvex-board", std::string(error.what()) + "; what was read before stays");
    }
}

// Mistyped names of pins.
void Program::TellDoubts() const {
    for (const std::string& doubt : m_access.Doubts()) {
        fprintf(stderr, "orvex-board: %s\n", doubt.c_str());
    }
}

// For whoever looks after the service.
std::string Program::StatusLine() const {
    std::string text = "viewers: " + std::to_string(m_server.Viewers());
    for (const std::string& problem :
         {m_board.LinkProblem(), m_board.Control().Problem(), m_history.Problem()}) {
        text += problem.empty() ? "" : "; " + problem;
    }
    return text;
}

void Program::Run() {
    m_history.Open(NowMs());
    TellDoubts();
    boost::asio::signal_set signals(m_loop, SIGINT, SIGTERM);
    signals.async_wait([this](const Error&, int) {
        m_notify.Stopping();
        m_loop.stop();
    });
    ReloadOnSignal();
    if (!m_walls.Problem().empty()) {
        fprintf(stderr, "orvex-board: walls: %s\n", m_walls.Problem().c_str());
    }
    Turn();
    Keep();
    printf("orvex-board: http%s://%s%s\n", m_options.certificate.empty() ? "" : "s",
           m_server.Address().c_str(), ParseBase(m_options.base).c_str());
    fflush(stdout);
    m_notify.Ready();
    m_loop.run();
    m_history.Store(NowMs());
    m_history.Keep(NowMs());
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain("orvex-board", [&] {
        Options options;
        if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
            return *status;
        }
        if (!options.user.action.empty()) {
            return RunUserCommand(options.user);
        }
        signal(SIGPIPE, SIG_IGN);
        Program program(options);
        program.Run();
        return 0;
    });
}
