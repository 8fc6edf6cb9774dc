#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "tools/base/ErrorText.h"
#include "tools/base/Signals.h"
#include "tools/bus/MessageJson.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

// Keeps the intervals between messages, measured from the first one, so that delays don't add up.
class Pace {
public:
    explicit Pace(double speed) : m_speed(speed) {}

    // Starts over with the next message.
    void Restart() { m_first = 0; }

    // Waits until the message is due. One without a time, or from before the first, is due at once.
    // False if a signal came first.
    bool WaitFor(double time, const Signals& signals) {
        if (m_first == 0) {
            m_first = time;
            m_start = Now();
        }
        pollfd stop = {signals.Get(), POLLIN, 0};
        const TimePoint due = Later(m_start, std::max(time - m_first, 0.0) / m_speed);
        do {
            if (poll(&stop, 1, MillisecondsUntil(due)) > 0) {
                return false;
            }
        } while (Now() < due);
        return true;
    }

private:
    const double m_speed;
    double m_first = 0;  // 0: none yet
    TimePoint m_start;
};

class Sender {
public:
    explicit Sender(const Options& options)
        : m_options(options), m_link(options.bus), m_output(options), m_pace(options.speed) {}

    // False if a signal ended it.
    bool SendLine(const std::string& line);

    // For the next round of the same lines.
    void Restart() { m_pace.Restart(); }

    // How many messages were sent.
    unsigned long Count() const { return m_count; }

private:
    const Options& m_options;
    BusLink m_link;
    Output m_output;
    Signals m_signals;
    Pace m_pace;
    unsigned long m_count = 0;
};

bool Sender::SendLine(const std::string& line) {
    Traffic traffic;
    if (!FromJson(line, traffic, m_options.names)) {
        m_options.console.Detail("nothing to send: " + line);
        return true;
    }
    if (!m_pace.WaitFor(m_options.fast ? 0 : traffic.time, m_signals)) {
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

// False if a signal ended it.
bool SendAll(std::istream& in, const std::string& name, Sender& sender) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        const std::string place = name + ":" + std::to_string(number) + ": ";
        try {
            if (!sender.SendLine(line)) {
                return false;
            }
        } catch (const std::invalid_argument& error) {
            throw Failure(STATUS_FAILED, place + error.what());
        } catch (const BusError& error) {
            throw BusError(place + error.what(), error.GetKind());
        }
    }
    if (in.bad() || !in.eof()) {
        throw Failure(STATUS_FAILED, "can't read " + name + ": " + ErrorText(errno));
    }
    return true;
}

}  // namespace

int RunSend(const Options& options) {
    Sender sender(options);
    if (options.file == "-") {
        if (options.loop) {
            throw Failure(STATUS_USAGE, "--loop needs a file, not standard input");
        }
        SendAll(std::cin, "standard input", sender);
        return STATUS_DONE;
    }
    for (;;) {
        const unsigned long before = sender.Count();
        errno = 0;
        std::ifstream file(options.file);
        if (!SendAll(file, options.file, sender) || !options.loop) {
            return STATUS_DONE;
        }
        if (sender.Count() == before) {
            throw Failure(STATUS_FAILED, "nothing to send in " + options.file);
        }
        sender.Restart();
    }
}
