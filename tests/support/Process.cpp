#include "tests/support/Process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace {

void Exec(const std::vector<std::string>& command, const std::vector<std::string>& environment) {
    std::vector<char*> arguments;
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    for (const std::string& word : environment) {
        putenv(const_cast<char*>(word.c_str()));
    }
    signal(SIGPIPE, SIG_DFL);
    execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

}  // namespace

Process::Process(const std::vector<std::string>& command,
                 const std::vector<std::string>& environment) {
    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        perror("pipe2");
        abort();
    }
    m_pid = fork();
    if (m_pid == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        Exec(command, environment);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_input = in[1];
    m_out.fd = out[0];
    m_err.fd = err[0];
    fcntl(m_out.fd, F_SETFL, O_NONBLOCK);
    fcntl(m_err.fd, F_SETFL, O_NONBLOCK);
}

Process::~Process() {
    if (m_running) {
        Signal(SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_input);
    close(m_out.fd);
    close(m_err.fd);
}

void Process::Stream::Pump() {
    char buf[4096];
    for (ssize_t got = 0; (got = read(fd, buf, sizeof buf)) > 0;) {
        text.append(buf, static_cast<size_t>(got));
    }
}

void Process::Pump() {
    int status = 0;
    if (m_running && waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_running = false;
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    m_out.Pump();
    m_err.Pump();
}

void Process::Signal(int number) const {
    if (m_running) {
        kill(m_pid, number);
    }
}

void Process::Type(const std::string& text) const {
    if (write(m_input, text.data(), text.size()) < 0) {
        perror("write");
    }
}
