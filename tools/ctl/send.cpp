#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tools/base/Descriptor.h"
#include "tools/base/ErrorText.h"
#include "tools/base/Signals.h"
#include "tools/bus/MessageJson.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"
#include "tools/ctl/Rotation.h"

namespace {

// What ends the command early: a signal, or the end of its time.
class Limit {
public:
    explicit Limit(std::optional<double> seconds)
        : m_end(seconds ? After(*seconds) : TimePoint::max()) {}

    // Waits until then, or until the descriptor is readable; -1: none. False if it is over.
    bool WaitFor(TimePoint until, int descriptor = -1) const {
        pollfd fds[] = {{m_signals.Get(), POLLIN, 0}, {descriptor, POLLIN, 0}};
        do {
            poll(fds, 2, MillisecondsUntil(std::min(until, m_end)));
            if (fds[0].revents != 0 || Now() >= m_end) {
                return false;
            }
        } while (fds[1].revents == 0 && Now() < until);
        return true;
    }

private:
    const TimePoint m_end;
    Signals m_signals;
};

// The lines of a file. Waits for those of a pipe or a terminal no longer than permitted, also for
// somebody to open the other end of a FIFO.
class LineFile {
public:
    LineFile(const std::string& file, const Limit& limit)
        : m_limit(limit),
          m_name(file == "-" ? "standard input" : file),
          m_file(file == "-" ? STDIN_FILENO
                             : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        if (!m_file.IsOpen()) {
            Fail();
        }
    }

    // "FILE:LINE: " of the line read last.
    std::string Place() const { return m_name + ":" + std::to_string(m_number) + ": "; }

    // None at the end of the file, or when the command is to end.
    std::optional<std::string> Next() {
        size_t end = m_data.find('\n', m_read);
        while (end == std::string::npos && Read()) {
            end = m_data.find('\n');
        }
        if (m_is_over || m_read == m_data.size()) {
            return std::nullopt;
        }
        ++m_number;
        end = std::min(end, m_data.size());
        const size_t begin = std::exchange(m_read, std::min(end + 1, m_data.size()));
        return m_data.substr(begin, end - begin);
    }

    // Whether the command is to end, not the file.
    bool IsOver() const { return m_is_over; }

private:
    [[noreturn]] void Fail() const {
        throw Failure(STATUS_FAILED, "can't read " + m_name + ": " + ErrorText(errno));
    }

    // Adds to the data. False at the end.
    bool Read() {
        m_data.erase(0, std::exchange(m_read, 0));
        m_is_over = !m_limit.WaitFor(TimePoint::max(), m_file.Get());
        char data[65536];
        const ssize_t got = m_is_over ? 0 : read(m_file.Get(), data, sizeof data);
        if (got < 0) {
            Fail();
        }
        m_data.append(data, static_cast<size_t>(got));
        return got > 0;
    }

    const Limit& m_limit;
    const std::string m_name;
    const Descriptor m_file;
    std::string m_data;
    size_t m_read = 0;  // where the next line begins
    int m_number = 0;
    bool m_is_over = false;
};

// Keeps the intervals between messages, measured from the first one, so that delays don't add up.
class Pace {
public:
    explicit Pace(double speed) : m_speed(speed) {}

    // Starts over with the next message, after a pause.
    void Restart() {
        m_first = 0;
        m_next = Later(Now(), PAUSE / m_speed);
    }

    // Waits until the message is due. One without a time follows the one before. False if the
    // command is to end first.
    bool WaitFor(double time, const Limit& limit) {
        TimePoint due = std::max(Now(), m_next);
        if (time != 0) {
            if (m_first == 0) {
                m_first = time;
                m_start = due;
            }
            due = Later(m_start, std::max(time - m_first, 0.0) / m_speed);
        }
        m_next = Later(std::max(due, Now()), STEP / m_speed);
        return limit.WaitFor(due);
    }

private:
    static constexpr double PAUSE = 1;    // seconds between repetitions of the file
    static constexpr double STEP = 0.01;  // between messages without a time

    const double m_speed;
    double m_first = 0;     // 0: none yet
    TimePoint m_start;      // when the first one was due
    TimePoint m_next = {};  // for messages without a time
};

class Sender {
public:
    explicit Sender(const Options& options)
        : m_options(options),
          m_link(options.bus),
          m_output(options),
          m_limit(options.seconds),
          m_pace(options.speed) {}

    // Sends the file once, with --rotated after those put aside. False if the command is to end.
    bool SendFiles();

    // How many messages were sent.
    unsigned long Count() const { return m_count; }

    // Before the file is sent again.
    void Pause() { m_pace.Restart(); }

    void PrintCount();

private:
    bool SendFile(const std::string& name);
    bool SendLine(const std::string& line);

    const Options& m_options;
    BusLink m_link;
    Output m_output;
    const Limit m_limit;
    Pace m_pace;
    unsigned long m_count = 0;
    unsigned long m_skipped = 0;
};

bool Sender::SendLine(const std::string& line) {
    Traffic traffic;
    if (!FromJson(line, traffic, m_options.names)) {
        m_options.console.Detail("nothing to send: " + line);
        ++m_skipped;
        return true;
    }
    if (!(m_options.fast ? m_limit.WaitFor({}) : m_pace.WaitFor(traffic.time, m_limit))) {
        return false;
    }
    if (traffic.port == 0) {
        traffic.port = m_options.bus.send_port;
    }
    if (m_options.reliable) {
        traffic.message.SetRel(true);
    }
    traffic.time = TimeOfDay();
    m_link.Send(traffic.message, traffic.port, traffic.message.GetRel());
    ++m_count;
    if (m_options.json || m_options.console.verbose) {
        m_output.Write(traffic);
    }
    return true;
}

bool Sender::SendFiles() {
    const std::vector<std::string> files =
        m_options.rotated ? OldestFirst(m_options.file) : std::vector<std::string>{m_options.file};
    return std::all_of(files.begin(), files.end(),
                       [this](const std::string& file) { return SendFile(file); });
}

bool Sender::SendFile(const std::string& name) {
    LineFile file(name, m_limit);
    while (const std::optional<std::string> line = file.Next()) {
        if (line->find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        try {
            if (!SendLine(*line)) {
                return false;
            }
        } catch (const std::invalid_argument& error) {
            throw Failure(STATUS_FAILED, file.Place() + error.what());
        } catch (const BusError& error) {
            throw BusError(file.Place() + error.what(), error.GetKind());
        }
    }
    return !file.IsOver();
}

// Unless the messages themselves were printed.
void Sender::PrintCount() {
    if (m_options.json || m_options.console.verbose || m_options.console.quiet) {
        return;
    }
    const auto number = [](unsigned long n, const char* what) {
        return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
    };
    m_output.Write("sent " + number(m_count, "message") +
                   (m_skipped == 0 ? "" : ", skipped " + number(m_skipped, "line")) + "\n");
}

}  // namespace

int RunSend(const Options& options) {
    if (options.loop && options.file == "-") {
        throw Failure(STATUS_USAGE, "--loop needs a file, not standard input");
    }
    Sender sender(options);
    for (unsigned long before = 0; sender.SendFiles() && options.loop; before = sender.Count()) {
        if (sender.Count() == before) {
            throw Failure(STATUS_FAILED, "nothing to send in " + options.file);
        }
        sender.Pause();
    }
    sender.PrintCount();
    return STATUS_DONE;
}
