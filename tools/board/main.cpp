// orvex-board: the board as a program.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "protocol/numbers.h"
#include "tools/base/Notify.h"
#include "tools/base/RunMain.h"
#include "tools/board/Access.h"
#include "tools/board/Api.h"
#include "tools/board/Board.h"
#include "tools/board/HttpServer.h"
#include "tools/board/Json.h"
#include "tools/board/Options.h"

namespace {

using Error = boost::system::error_code;
using Wait = boost::asio::posix::stream_descriptor;

const std::chrono::seconds KEEP_PACE{5};
const std::chrono::seconds BEAT_PACE{5};
const int FIRST_PASSED_SOCKET = 3;

// Someone else's socket in the loop. The loop never closes it, and releases it before its owner
// closes it.
class Watch {
public:
    Watch(boost::asio::io_context& loop, std::function<int()> socket, std::function<void()> ready,
          std::function<bool()> writes = nullptr)
        : m_wait(loop),
          m_socket(std::move(socket)),
          m_ready(std::move(ready)),
          m_writes(std::move(writes)) {}
    ~Watch() { Release(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // Call it when the socket may have changed; true if it has.
    bool Follow() {
        const int socket = m_socket();
        const bool write = m_writes && m_writes();
        struct stat status = {};
        const ino_t identity = socket >= 0 && fstat(socket, &status) == 0 ? status.st_ino : 0;
        if (identity == m_watched && write == m_writing) {
            return false;
        }
        Release();
        m_watched = identity;
        m_writing = write;
        if (identity != 0) {
            // A copy: the owner may close its own at any time, and numbers are reused.
            m_wait.assign(dup(socket));
            Again();
        }
        return true;
    }

    void Release() {
        Error ignored;
        m_wait.close(ignored);
        m_watched = 0;
    }

private:
    void Again() {
        m_wait.async_wait(m_writing ? Wait::wait_write : Wait::wait_read,
                          [this](const Error& error) {
                              if (error) {
                                  return;
                              }
                              m_ready();
                              if (!Follow()) {
                                  Again();
                              }
                          });
    }

    Wait m_wait;
    const std::function<int()> m_socket;
    const std::function<void()> m_ready;
    const std::function<bool()> m_writes;
    ino_t m_watched = 0;  // identifies the socket, whatever its number
    bool m_writing = false;
};

class Program {
public:
    explicit Program(const Options& options);
    void Run();

private:
    static BoardSettings BoardSettingsOf(const Options& options);
    static HistorySettings HistorySettingsOf(const Options& options);
    static AccessSettings AccessSettingsOf(const Options& options);
    void Every(boost::asio::steady_timer& timer, std::chrono::milliseconds pace,
               const std::function<void()>& task);
    void Tick();
    std::string StatusLine() const;
    void StoreSoon();

    boost::asio::io_context m_loop{1};
    Notify m_notify;
    History m_history;
    EventStream m_stream;
    Board m_board;
    Access m_access;
    Metrics m_metrics;
    Api m_api;
    HttpServer m_server;
    Watch m_reports;
    Watch m_requests;
    Watch m_control;
    boost::asio::steady_timer m_tick{m_loop};
    boost::asio::steady_timer m_keep{m_loop};
    boost::asio::steady_timer m_beat{m_loop};
    boost::asio::steady_timer m_store{m_loop};
    bool m_storing = false;
    std::string m_problem;
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
    settings.file = options.db;
    const char* const folder = getenv("STATE_DIRECTORY");
    if (settings.file.empty() && folder != nullptr && *folder != '\0') {
        settings.file = std::string(folder) + "/history.db";
    }
    settings.keep_ms = ParseAge(options.keep);
    settings.keep_bytes = settings.file.empty() ? 8 << 20 : ParseSize(options.keep_size);
    return settings;
}

AccessSettings Program::AccessSettingsOf(const Options& options) {
    AccessSettings settings;
    settings.allow_set = options.allow_set;
    settings.hosts.insert(options.hosts.begin(), options.hosts.end());
    if (!options.token_file.empty()) {
        settings.token = ReadToken(options.token_file);
    }
    return settings;
}

Program::Program(const Options& options)
    : m_history(HistorySettingsOf(options)),
      m_stream(std::to_string(NowMs())),
      m_board(BoardSettingsOf(options), m_history, m_stream),
      m_access(AccessSettingsOf(options)),
      m_metrics(m_board, m_history),
      m_api(m_board, m_history, m_stream, m_access, m_metrics),
      m_server(m_loop, m_stream,
               [this](const HttpRequest& request) {
                   HttpResponse response = m_api.Handle(request);
                   StoreSoon();
                   return response;
               }),
      m_reports(
          m_loop, [this] { return m_board.BusSocket(0); },
          [this] {
              m_board.ReadBus();
              StoreSoon();
          }),
      m_requests(
          m_loop, [this] { return m_board.BusSocket(1); },
          [this] {
              m_board.ReadBus();
              StoreSoon();
          }),
      m_control(
          m_loop, [this] { return m_board.Control().GetDescriptor(); },
          [this] {
              m_board.ServeControl();
              StoreSoon();
          },
          [this] { return (m_board.Control().Events() & POLLOUT) != 0; }) {
    m_history.on_stored = [this](int64_t delay) { m_metrics.NoteStored(delay); };
    m_metrics.viewers = [this] { return m_server.Viewers(); };
    m_metrics.viewers_cut = [this] { return m_server.CutOff(); };
    const char* const pid = getenv("LISTEN_PID");
    const char* const sockets = getenv("LISTEN_FDS");
    if (pid != nullptr && sockets != nullptr && atol(pid) == getpid() && atoi(sockets) == 1) {
        m_server.Listen(FIRST_PASSED_SOCKET);
    } else {
        const HostPort place = ParseHostPort(options.listen);
        m_server.Listen(place.host, place.port);
    }
}

void Program::Every(boost::asio::steady_timer& timer, std::chrono::milliseconds pace,
                    const std::function<void()>& task) {
    task();
    timer.expires_after(pace);
    timer.async_wait([this, &timer, pace, task](const Error& error) {
        if (!error) {
            Every(timer, pace, task);
        }
    });
}

// For whoever looks after the service.
std::string Program::StatusLine() const {
    std::string text = "viewers: " + std::to_string(m_server.Viewers());
    for (const std::string& problem :
         {m_board.LinkProblem(), m_board.ControlProblem(), m_history.Problem()}) {
        text += problem.empty() ? "" : "; " + problem;
    }
    return text;
}

void Program::Tick() {
    m_notify.Beat();
    m_board.Tick();
    m_reports.Follow();
    m_requests.Follow();
    m_control.Follow();
    StoreSoon();
    if (m_problem != m_history.Problem() + m_history.Notice()) {
        m_problem = m_history.Problem() + m_history.Notice();
        if (!m_problem.empty()) {
            fprintf(stderr, "orvex-board: history: %s\n", m_problem.c_str());
        }
        m_board.TellStatus();
    }
}

void Program::StoreSoon() {
    if (m_storing || !m_history.IsWaiting()) {
        return;
    }
    m_storing = true;
    m_store.expires_after(std::chrono::milliseconds(History::STORE_AFTER));
    m_store.async_wait([this](const Error& error) {
        m_storing = false;
        if (!error) {
            m_history.Store(NowMs());
        }
    });
}

void Program::Run() {
    m_history.Open(NowMs());
    boost::asio::signal_set signals(m_loop, SIGINT, SIGTERM);
    signals.async_wait([this](const Error&, int) {
        m_notify.Stopping();
        m_loop.stop();
    });
    Every(m_tick, Board::TICK, [this] { Tick(); });
    Every(m_keep, KEEP_PACE, [this] { m_history.Keep(NowMs()); });
    Every(m_beat, BEAT_PACE, [this] {
        m_stream.Append("beat", Dump({{"now", NowMs()}, {"viewers", m_server.Viewers()}}));
        m_notify.Status(StatusLine());
    });
    printf("orvex-board: http://%s/\n", m_server.Address().c_str());
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
        signal(SIGPIPE, SIG_IGN);
        Program program(options);
        program.Run();
        return 0;
    });
}
