// Runs a command again and again, within limits.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/base/Time.h"

// At most so many runs in a time.
struct RunLimit {
    size_t count = 10;
    double seconds = 1;
};

struct RunnerSettings {
    std::vector<std::string> command;  // looked up in PATH
    size_t parallel = 1;               // runs at a time
    RunLimit limit;
    double timeout = 60;  // seconds, for a run
};

// Starts children without a shell, each in a process group of its own. They have this program's
// environment and standard output and error. For a program with a loop that catches SIGCHLD: call
// Serve() after one, and when NextTime() has come.
class Runner {
public:
    // What a run is given.
    struct Input {
        std::vector<std::string> environment;  // "NAME=value", added to this program's
        std::string text;                      // on standard input; less than a page
    };

    static constexpr size_t MAX_WAITING = 100;

    // tell is called with what the user should know: failures, and runs that were left out.
    Runner(RunnerSettings settings, std::function<void(const std::string&)> tell);
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    // Whether there is such a program; otherwise no run can succeed.
    bool HasProgram() const;

    // Runs the command now, or once an earlier run has ended.
    void Run(const Input& input);

    void Serve();
    TimePoint NextTime() const;

    // Runs that wait or have not ended yet; whether one has failed.
    bool IsBusy() const { return !m_waiting.empty() || !m_children.empty(); }
    bool HasFailed() const { return m_has_failed; }

    // Ends the running commands: SIGTERM, and SIGKILL after two seconds. Those that wait are left
    // out. Returns when all have ended.
    void Stop();

private:
    struct Child {
        TimePoint end;          // when a signal is due
        bool is_ended = false;  // was sent SIGTERM
    };

    bool IsAllowed(TimePoint now);
    void StartWaiting();
    void Start(const Input& input);
    void Reap();
    void EndLate(TimePoint now);
    void Fail(const std::string& text);

    const RunnerSettings m_settings;
    const std::function<void(const std::string&)> m_tell;
    std::deque<TimePoint> m_starts;  // as many as the limit has room for
    std::deque<Input> m_waiting;
    std::map<pid_t, Child> m_children;
    size_t m_left_out = 0;  // in a row
    bool m_has_failed = false;
};
