#include "tools/base/Signals.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

Signals::Signals(std::initializer_list<int> others) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    for (const int number : others) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    m_descriptor = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!m_descriptor.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

std::optional<int> Signals::Take() {
    signalfd_siginfo info = {};
    if (read(m_descriptor.Get(), &info, sizeof info) != sizeof info) {
        return std::nullopt;
    }
    return static_cast<int>(info.ssi_signo);
}
