// A program started by a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Runs as a child, in the network namespace of the thread that starts it. Pump() collects its
// output. The destructor kills it if it still runs.
class Process {
public:
    // environment: "NAME=value" words added to the test's own.
    explicit Process(const std::vector<std::string>& command,
                     const std::vector<std::string>& environment = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Collects new output, and the exit status if the program has ended. Never waits.
    void Pump();

    const std::string& Out() const { return m_out.text; }
    const std::string& Err() const { return m_err.text; }
    bool IsRunning() const { return m_running; }

    // The exit status; 128 + the signal's number if a signal ended it; -1 while it runs.
    int Status() const { return m_status; }

    pid_t Pid() const { return m_pid; }
    void Signal(int number) const;
    void Type(const std::string& text) const;  // writes to its standard input

private:
    struct Stream {
        int fd = -1;
        std::string text;

        void Pump();
    };

    pid_t m_pid = -1;
    bool m_running = true;
    int m_status = -1;
    int m_input = -1;
    Stream m_out;
    Stream m_err;
};
