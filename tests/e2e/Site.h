// A device with the daemon and its control server, and a second host.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Host.h"
#include "tests/support/Process.h"
#include "tools/server/ControlServer.h"

// A stand-in server and the lines it has received.
struct Peer {
    Peer();

    ControlServer server;
    std::vector<std::string> heard;
    int connections = 0;

    // How often the line was received.
    long Count(const std::string& line) const;
};

// Base of the end-to-end tests. Nothing runs on the hosts until the test starts it.
class Site : public testing::Test {
protected:
    static constexpr const char* DEVICE_ADDRESS = "10.77.0.1";
    static constexpr const char* STUDIO_ADDRESS = "10.77.0.2";

    Site();
    void SetUp() override;
    void TearDown() override;

    // Start the servers where the daemon expects them: the control server on port 93 of the
    // device's loopback, the remote GPIO server on port 93 of the studio.
    void StartControl();
    void StartRemote();

    // command: words to put before the program's, of a command that runs it.
    void StartDaemon(const std::vector<std::string>& options = {"-debug"},
                     const std::vector<std::string>& environment = {},
                     std::vector<std::string> command = {});

    // Serves all peers until the condition holds; false if it doesn't within the limit.
    bool Await(const std::function<bool()>& condition, int limit_ms = 10000);
    bool AwaitHeard(Peer& peer, const std::string& line, long times = 1);
    bool AwaitOut(const std::string& text);
    bool AwaitErr(const std::string& text);

    // Serves all peers for a while, to check that something does not happen.
    void Linger(int ms);

    bool m_prepared;
    Host device;
    Host studio;
    Peer tqrd;
    Peer remote;
    std::unique_ptr<Process> daemon;
};
