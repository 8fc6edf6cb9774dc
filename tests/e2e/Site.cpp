#include "tests/e2e/Site.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>

namespace {

std::vector<std::string> DaemonCommand() {
    // Empty without an emulator. NOLINTNEXTLINE(readability-redundant-string-init)
    const std::string emulator(ORVEX_EMULATOR);
    return emulator.empty() ? std::vector<std::string>{ORVEX_PROGRAM}
                            : std::vector<std::string>{emulator, ORVEX_PROGRAM};
}

}  // namespace

Peer::Peer()
    : server([this](const ControlServer::Event& event) {
          if (event.kind == ControlServer::EventKind::Received) {
              heard.push_back(event.text);
          } else if (event.kind == ControlServer::EventKind::Connected) {
              ++connections;
          }
      }) {}

long Peer::Count(const std::string& line) const {
    return std::count(heard.begin(), heard.end(), line);
}

Site::Site() : m_prepared(Host::Prepare()) {}

void Site::SetUp() {
    signal(SIGPIPE, SIG_IGN);
    if (!m_prepared) {
        GTEST_SKIP() << Host::NEEDED;
    }
    ASSERT_TRUE(Host::Connect(device, DEVICE_ADDRESS, studio, STUDIO_ADDRESS));
}

void Site::TearDown() {
    if (daemon != nullptr && HasFailure()) {
        daemon->Pump();
        printf("---- daemon, standard output:\n%s---- standard error:\n%s----\n",
               daemon->Out().c_str(), daemon->Err().c_str());
    }
}

void Site::StartControl() {
    const Host::Scope on(device);
    tqrd.server.Listen("127.0.0.1", 93);
}

void Site::StartRemote() {
    const Host::Scope on(studio);
    remote.server.Listen(STUDIO_ADDRESS, 93);
}

void Site::StartDaemon(const std::vector<std::string>& options,
                       const std::vector<std::string>& environment,
                       std::vector<std::string> command) {
    const std::vector<std::string> program = DaemonCommand();
    command.insert(command.end(), program.begin(), program.end());
    command.insert(command.end(), options.begin(), options.end());
    const Host::Scope on(device);
    daemon = std::make_unique<Process>(command, environment);
}

bool Site::Await(const std::function<bool()>& condition, int limit_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        ControlServer::StepAll({&tqrd.server, &remote.server}, 5);
        if (daemon != nullptr) {
            daemon->Pump();
        }
    }
    return true;
}

bool Site::AwaitHeard(Peer& peer, const std::string& line, long times) {
    return Await([&] { return peer.Count(line) >= times; });
}

bool Site::AwaitOut(const std::string& text) {
    return Await([&] { return daemon->Out().find(text) != std::string::npos; });
}

bool Site::AwaitErr(const std::string& text) {
    return Await([&] { return daemon->Err().find(text) != std::string::npos; });
}

void Site::Linger(int ms) {
    Await([] { return false; }, ms);
}
