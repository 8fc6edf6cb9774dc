#include "tools/gpio/Service.h"

#include <algorithm>
#include <csignal>
#include <system_error>

#include "tools/base/LineBuffer.h"

namespace {

const size_t LOG_LINES = 100;  // a second
const char* const ALL_WELL = "all pins have their lines";

// The beginning of a line "CFG GPO 2 ...", which says which output it is about.
std::string SubjectOf(const std::string& line) {
    return line.substr(0, line.find(' ', line.find_first_of("123456789")));
}

}  // namespace

Service::Service(const GpioConfig& config)
    : m_log(LOG_LINES),
      m_server([this](const ControlServer::Event& event) { Tell(event); },
               [this](int number) { m_hardware.Drive(number); }),
      m_hardware(m_server, [this](const std::string& text) { m_log.Tell(text); }) {
    ApplyLines(config);
    m_hardware.Configure(config);
    if (!Listen(config.listen)) {
        throw std::runtime_error("can't listen on all addresses");
    }
    m_config = config;
    m_notify.Status(ALL_WELL);
    TellProblems();
    m_notify.Ready();
}

void Service::Run(Signals& signals) {
    // cppcheck-suppress variableScope; its memory is used again
    std::vector<pollfd> fds;
    for (;;) {
        fds = {{signals.Get(), POLLIN, 0}};
        m_hardware.AddDescriptors(fds);
        m_server.AddDescriptors(fds);
        m_notify.Beat();
        const TimePoint next =
            std::min({m_hardware.NextTime(), m_notify.NextTime(), m_log.NextTime()});
        poll(fds.data(), fds.size(), m_server.Timeout(MillisecondsUntil(next)));
        const std::optional<int> signal = fds[0].revents != 0 ? signals.Take() : std::nullopt;
        if (signal && *signal != SIGHUP) {
            m_notify.Stopping();
            return m_hardware.Release();
        }
        if (signal) {
            Reload();
        }
        // Edges first: what they change is part of the answers.
        if (m_hardware.Serve(fds)) {
            TellProblems();
        }
        m_server.Serve(fds);
        m_log.Tend();
    }
}

// Lines of clients are not told: there are too many.
void Service::Tell(const ControlServer::Event& event) {
    if (event.kind != ControlServer::EventKind::Received &&
        event.kind != ControlServer::EventKind::Sent) {
        m_log.Tell(event.peer + " " + event.text);
    }
}

// Listens on all of these addresses, and on no other. If one can't be had, nothing changes.
bool Service::Listen(const std::vector<ListenConfig>& wanted) {
    const auto has = [](const std::vector<ListenConfig>& all, const ListenConfig& one) {
        return std::any_of(all.begin(), all.end(), [&one](const ListenConfig& other) {
            return other.endpoint == one.endpoint && other.access == one.access;
        });
    };
    const auto close = [this](const ListenConfig& one) {
        m_server.EndListening(one.endpoint.ip, one.endpoint.port);
    };
    const auto open = [this](const ListenConfig& one) {
        m_server.Listen(one.endpoint.ip, one.endpoint.port, one.access);
    };
    std::vector<ListenConfig> opened;
    std::vector<ListenConfig> closed;
    try {
        for (const ListenConfig& one : m_config.listen) {
            if (!has(wanted, one)) {
                close(one);
                closed.push_back(one);
            }
        }
        for (const ListenConfig& one : wanted) {
            if (!has(m_config.listen, one)) {
                open(one);
                opened.push_back(one);
            }
        }
    } catch (const std::system_error& error) {
        m_log.Tell(std::string("can't listen: ") + error.what());
        std::for_each(opened.begin(), opened.end(), close);
        std::for_each(closed.begin(), closed.end(), open);
        return false;
    }
    for (const ListenConfig& one : opened) {
        m_log.Tell("listening on " + one.endpoint.Text());
    }
    return true;
}

// A daemon keeps what it has been told: an output without a configuration line gets one that ends
// it.
void Service::ApplyLines(const GpioConfig& config) {
    for (const std::string& old : m_config.lines) {
        const bool is_setting = old[0] == 'S';
        const auto replaces = [&](const std::string& line) {
            return is_setting ? line == old : SubjectOf(line) == SubjectOf(old);
        };
        if (std::any_of(config.lines.begin(), config.lines.end(), replaces)) {
            continue;
        }
        if (is_setting) {
            m_server.Forget(old);
        } else {
            m_server.Apply(SubjectOf(old) + " SRCA=none");
        }
    }
    for (const std::string& line : config.lines) {
        m_server.Apply(line);
    }
}

void Service::Reload() {
    try {
        const GpioConfig config = GpioConfig::Read(m_config.file);
        RefuseContradictions(config, FindChips());
        if (!Listen(config.listen)) {
            return m_log.Tell(config.file + " is not used: the configuration stays as it was");
        }
        ApplyLines(config);
        m_hardware.Configure(config);
        m_config = config;
        m_log.Tell(config.file + " is used");
        TellProblems();
    } catch (const ConfigError& error) {
        m_log.Tell(error.what());
        m_log.Tell(m_config.file + " is not used: the configuration stays as it was");
    }
}

// Clients of the control server learn what does not work as a setting, operators from the status of
// the service.
void Service::TellProblems() {
    std::string text;
    for (const std::string& problem : m_hardware.Problems()) {
        text += (text.empty() ? "" : "; ") + problem;
    }
    text = Printable(text);
    std::replace(text.begin(), text.end(), '"', '\'');
    std::replace(text.begin(), text.end(), '\\', '/');
    if (text == m_told) {
        return;
    }
    m_told = text;
    m_server.Apply("SET GPIO_PROBLEMS=" + (text.empty() ? "none" : "\"" + text + "\""));
    m_notify.Status(text.empty() ? ALL_WELL : text);
    if (text.empty()) {
        m_log.Tell(ALL_WELL);
    }
}
