// orvex-sim: the stand-in control server as a program.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "protocol/numbers.h"
#include "tools/base/ErrorText.h"
#include "tools/base/Notify.h"
#include "tools/base/RunMain.h"
#include "tools/base/Signals.h"
#include "tools/completion/CommandLine.h"
#include "tools/server/Address.h"
#include "tools/server/ControlServer.h"

namespace {

const char* const APP_NAME = "orvex-sim";

const char* const DESCRIPTION =
    "Plays the control server of a device, or a remote GPIO server: answers SET and CFG GPO,\n"
    "sends inputs to clients that subscribed to them, and sets outputs on request.\n";

const char* const COMMANDS =
    "FILE, and standard input while it runs, hold these lines:\n"
    "  SET TAG=VALUE...           settings\n"
    "  CFG GPO n SRCA=...         the source of output n (1 to 32)\n"
    "  GPI n STATE                the state of input n (1 to 256)\n"
    "  GPO n STATE [DURATION:ms]  the state of output n\n"
    "  # a comment\n"
    "STATE has up to five of H, L, h, l and x (leave this pin alone). Standard input also accepts\n"
    "  show, drop (close all connections) and quit.\n"
    "Exit status: 0 after quit, SIGINT or SIGTERM; 1 if it can't listen or can't read FILE;\n"
    "2 for a usage error.\n";

struct Options {
    std::vector<std::string> listen = {"127.0.0.1:" + std::to_string(LINE_PORT)};
    std::string file;
};

// Reads the command line. Returns an exit status if the program should end.
std::optional<int> ParseOptions(int argc, char** argv, Options& options) {
    CommandLine line(APP_NAME, DESCRIPTION, COMMANDS);
    line.add_option("--listen", options.listen, "Address to listen on, port 0 for any; repeatable")
        ->type_name("IP:PORT")
        ->allow_extra_args(false)
        ->check([](const std::string& text) {
            return ParseEndpoint(text) ? std::string() : "not an IP:PORT: " + text;
        })
        ->capture_default_str();
    const CLI::Option* const file =
        line.add_option("FILE", options.file, "The state to begin with, in lines as below")
            ->type_name("");
    return line.Parse(argc, argv, {{file, Completion::File}});
}

void Print(const std::string& text) {
    timespec now = {};
    tm local = {};
    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &local);
    printf("%02d:%02d:%02d.%03d %s\n", local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<int>(now.tv_nsec / 1000000), Printable(text).c_str());
}

void PrintProblem(const std::string& origin, const std::string& text) {
    fprintf(stderr, "%s: %s: %s\n", APP_NAME, origin.c_str(), text.c_str());
}

void PrintEvent(const ControlServer::Event& event) {
    switch (event.kind) {
        case ControlServer::EventKind::Received:
            return Print(event.peer + " < " + event.text);
        case ControlServer::EventKind::Sent:
            return Print(event.peer + " > " + event.text);
        case ControlServer::EventKind::Connected:
        case ControlServer::EventKind::Disconnected:
            return Print(event.peer + " " + event.text);
        case ControlServer::EventKind::Problem:
            return PrintProblem(event.peer, event.text);
    }
}

// The line without surrounding blanks; empty if it is a comment.
std::string Content(const std::string& line) {
    const size_t begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos || line[begin] == '#') {
        return {};
    }
    return line.substr(begin, line.find_last_not_of(" \t\r") + 1 - begin);
}

void Apply(ControlServer& server, const std::string& origin, const std::string& line) {
    const std::string error = server.Apply(line);
    if (!error.empty()) {
        PrintProblem(origin, error);
    }
}

bool LoadFile(ControlServer& server, const std::string& name) {
    errno = 0;
    std::ifstream file(name);
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const std::string content = Content(line);
        if (!content.empty()) {
            Apply(server, name + ":" + std::to_string(number), content);
        }
    }
    if (file.eof()) {
        return true;
    }
    PrintProblem(name, "can't read: " + ErrorText(errno));
    return false;
}

bool Listen(ControlServer& server, const std::vector<std::string>& addresses) {
    for (const std::string& text : addresses) {
        const Endpoint address = ParseEndpoint(text).value();
        try {
            const uint16_t port = server.Listen(address.ip, address.port);
            Print("listening on " + address.ip + ":" + std::to_string(port));
        } catch (const std::system_error& error) {
            PrintProblem(text, "can't listen: " + error.code().message());
            if (error.code() == std::errc::permission_denied) {
                fprintf(stderr, "%s: ports below 1024 are for root; try --listen %s:1093\n",
                        APP_NAME, address.ip.c_str());
            }
            return false;
        }
    }
    return true;
}

// The operator at standard input.
class Console {
public:
    explicit Console(ControlServer& server) : m_server(server) {}

    bool HasQuit() const { return m_quit; }

    // -1 once the input has ended.
    int GetDescriptor() const { return m_open ? STDIN_FILENO : -1; }

    void Read() {
        char data[4096];
        const ssize_t got = read(STDIN_FILENO, data, sizeof data);
        if (got > 0) {
            m_input.Append(data, static_cast<size_t>(got));
        } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
            m_open = false;
            m_input.Append("\n", 1);
        }
        std::string line;
        LineBuffer::Result result = LineBuffer::Result::Incomplete;
        while (!m_quit && (result = m_input.Next(line)) == LineBuffer::Result::Line) {
            Execute(Content(line));
        }
        if (result == LineBuffer::Result::Overlong) {
            m_input.Clear();
            PrintProblem("standard input", "line too long");
        }
    }

private:
    void Execute(const std::string& line) {
        if (line == "quit") {
            m_quit = true;
        } else if (line == "drop") {
            m_server.DropAll();
        } else if (line == "show") {
            Show();
        } else if (!line.empty()) {
            Apply(m_server, "standard input", line);
        }
    }

    // In the syntax of FILE.
    void Show() {
        for (const std::string& line : m_server.Device().Lines()) {
            printf("%s\n", line.c_str());
        }
        for (const std::string& client : m_server.DescribeClients()) {
            printf("# %s\n", client.c_str());
        }
    }

    ControlServer& m_server;
    LineBuffer m_input;
    bool m_open = true;
    bool m_quit = false;
};

void Run(ControlServer& server, const Signals& signals) {
    Console console(server);
    Notify notify;
    notify.Ready();
    // cppcheck-suppress variableScope; its memory is used again
    std::vector<pollfd> fds;
    while (!console.HasQuit()) {
        fds = {{signals.Get(), POLLIN, 0}, {console.GetDescriptor(), POLLIN, 0}};
        server.AddDescriptors(fds);
        notify.Status("clients connected: " + std::to_string(server.ClientCount()));
        notify.Beat();
        poll(fds.data(), fds.size(), server.Timeout(MillisecondsUntil(notify.NextTime())));
        if (fds[0].revents != 0) {
            break;
        }
        server.Serve(fds);
        if (fds[1].revents != 0) {
            console.Read();
        }
    }
    notify.Stopping();
}

int Main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options)) {
        return *status;
    }
    // Lines are flushed at once, so that they are seen through a pipe too. In the background of a
    // shell, a read from the terminal fails instead of stopping the program.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGTTIN, SIG_IGN);
    const Signals signals;
    // With a driver, although it has no pins to drive: clients that come back are told the states.
    ControlServer server(PrintEvent, [](int) {});
    if ((!options.file.empty() && !LoadFile(server, options.file)) ||
        !Listen(server, options.listen)) {
        return STATUS_FAILED;
    }
    Run(server, signals);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return RunMain(APP_NAME, [&] { return Main(argc, argv); });
}
