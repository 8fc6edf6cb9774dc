#include "tools/ctl/Runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sstream>
#include <utility>

#include "tools/base/Descriptor.h"
#include "tools/base/ErrorText.h"

namespace {

const double GRACE = 2;  // seconds from SIGTERM to SIGKILL

std::string Seconds(double seconds) {
    std::ostringstream text;
    text << seconds;
    return text.str() + " s";
}

// Standard input from the descriptor, no blocked signals, and a group that can be ended as a whole.
class SpawnSettings {
public:
    explicit SpawnSettings(int input) {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnSettings() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

// For the system: pointers to the texts, and a null.
std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// This program's environment with the additions, which replace variables of the same name.
std::vector<std::string> Environment(const std::vector<std::string>& additions) {
    std::vector<std::string> all = additions;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        if (std::none_of(additions.begin(), additions.end(), [&name](const std::string& addition) {
                return addition.compare(0, name.size(), name) == 0;
            })) {
            all.push_back(text);
        }
    }
    return all;
}

}  // namespace

Runner::Runner(RunnerSettings settings, std::function<void(const std::string&)> tell)
    : m_settings(std::move(settings)), m_tell(std::move(tell)) {}

Runner::~Runner() {
    Stop();
}

bool Runner::HasProgram() const {
    const std::string& program = m_settings.command[0];
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0;
    }
    const char* const path = getenv("PATH");
    std::istringstream folders(path == nullptr ? "/bin:/usr/bin" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (access((folder + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

void Runner::Run(const Input& input) {
    if (m_waiting.size() >= MAX_WAITING || !IsAllowed(Now())) {
        if (m_left_out++ == 0) {
            m_tell("too many changes: the command is not run for all of them");
        }
        return;
    }
    if (m_left_out > 0) {
        m_tell(std::to_string(std::exchange(m_left_out, 0)) + " runs were left out");
    }
    m_waiting.push_back(input);
    StartWaiting();
}

bool Runner::IsAllowed(TimePoint now) {
    while (!m_starts.empty() && Later(m_starts.front(), m_settings.limit.seconds) <= now) {
        m_starts.pop_front();
    }
    if (m_starts.size() >= m_settings.limit.count) {
        return false;
    }
    m_starts.push_back(now);
    return true;
}

void Runner::StartWaiting() {
    while (!m_waiting.empty() && m_children.size() < m_settings.parallel) {
        const Input input = std::move(m_waiting.front());
        m_waiting.pop_front();
        Start(input);
    }
}

void Runner::Start(const Input& input) {
    int ends[2] = {};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Fail("can't run " + m_settings.command[0] + ": " + ErrorText(errno));
        return;
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    const SpawnSettings settings(reading.Get());
    const std::vector<std::string> environment = Environment(input.environment);
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, m_settings.command[0].c_str(), &settings.actions, &settings.attributes,
                     Pointers(m_settings.command).data(), Pointers(environment).data());
    if (error != 0) {
        Fail("can't run " + m_settings.command[0] + ": " + ErrorText(error));
        return;
    }
    // The pipe has room for it. This end of it is still open, so nothing raises SIGPIPE.
    if (write(writing.Get(), input.text.data(), input.text.size()) < 0) {
        Fail("can't write to " + m_settings.command[0] + ": " + ErrorText(errno));
    }
    m_children[pid] = {After(m_settings.timeout)};
}

void Runner::Serve() {
    Reap();
    EndLate(Now());
    StartWaiting();
}

void Runner::Reap() {
    for (auto child = m_children.begin(); child != m_children.end();) {
        int status = 0;
        if (waitpid(child->first, &status, WNOHANG) == 0) {
            ++child;
            continue;
        }
        const std::string& name = m_settings.command[0];
        if (child->second.is_ended) {
            m_has_failed = true;  // and was told
        } else if (WIFSIGNALED(status)) {
            Fail(name + " was ended by signal " + std::to_string(WTERMSIG(status)));
        } else if (WEXITSTATUS(status) != 0) {
            Fail(name + " failed with status " + std::to_string(WEXITSTATUS(status)));
        }
        child = m_children.erase(child);
    }
}

void Runner::EndLate(TimePoint now) {
    for (auto& [pid, child] : m_children) {
        if (now < child.end) {
            continue;
        }
        if (!child.is_ended) {
            Fail(m_settings.command[0] + " takes longer than " + Seconds(m_settings.timeout) +
                 ": it is ended");
        }
        kill(-pid, child.is_ended ? SIGKILL : SIGTERM);
        child.is_ended = true;
        child.end = Later(now, GRACE);
    }
}

TimePoint Runner::NextTime() const {
    TimePoint next = TimePoint::max();
    for (const auto& child : m_children) {
        next = std::min(next, child.second.end);
    }
    return next;
}

void Runner::Stop() {
    m_waiting.clear();
    for (auto& [pid, child] : m_children) {
        kill(-pid, SIGTERM);
        child.is_ended = true;
        child.end = After(GRACE);
    }
    while (!m_children.empty()) {
        poll(nullptr, 0, 10);
        Reap();
        EndLate(Now());
    }
}

void Runner::Fail(const std::string& text) {
    m_has_failed = true;
    m_tell(text);
}
