#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "tools/bus/MessageJson.h"
#include "tools/ctl/Commands.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"
#include "tools/ctl/Output.h"

namespace {

// Keeps the distances in time that messages had: to the first one, so that delays don't add up.
class Pace {
public:
    // Waits until the message is due. One without a time, or from before the first, is due at once.
    void WaitFor(double time) {
        if (m_first == 0) {
            m_first = time;
            m_start = Now();
        }
        const double max_gap = 1e9;
        const double gap = std::min(time - m_first, max_gap);
        if (gap > 0) {
            std::this_thread::sleep_until(
                m_start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(gap)));
        }
    }

private:
    double m_first = 0;  // 0: none yet
    TimePoint m_start;
};

class Sender {
public:
    explicit Sender(const Options& options)
        : m_options(options),
          m_link(options.bus),
          m_output("-", options.json ? Output::Form::Json : Output::Form::FullText) {}

    void SendLine(const std::string& line);

private:
    const Options& m_options;
    BusLink m_link;
    Output m_output;
    Pace m_pace;
};

void Sender::SendLine(const std::string& line) {
    Traffic traffic;
    FromJson(line, traffic);
    if (!m_options.fast) {
        m_pace.WaitFor(traffic.time);
    }
    if (traffic.port == 0) {
        traffic.port = m_options.bus.send_port;
    }
    if (m_options.reliable) {
        traffic.message.SetRel(true);
    }
    traffic.time = TimeOfDay();
    m_link.Send(traffic.message, traffic.port, traffic.message.GetRel());
    if (m_options.json || m_options.console.verbose) {
        m_output.Write(traffic);
    }
}

void SendAll(std::istream& in, const std::string& name, const Options& options) {
    Sender sender(options);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        const std::string place = name + ":" + std::to_string(number) + ": ";
        try {
            sender.SendLine(line);
        } catch (const std::invalid_argument& error) {
            throw Failure(STATUS_FAILED, place + error.what());
        } catch (const BusError& error) {
            throw BusError(place + error.what(), error.GetKind());
        }
    }
    if (in.bad() || !in.eof()) {
        throw Failure(STATUS_FAILED, "can't read " + name + ": " + strerror(errno));
    }
}

}  // namespace

int RunSend(const Options& options) {
    if (options.file == "-") {
        SendAll(std::cin, "standard input", options);
        return STATUS_DONE;
    }
    errno = 0;
    std::ifstream file(options.file);
    SendAll(file, options.file, options);
    return STATUS_DONE;
}
