// Peers that do not answer, vanish, forget subscriptions or read slowly, with the settings against
// that; closed standard streams.

#include <unistd.h>

#include <chrono>
#include <fstream>

#include "tests/e2e/Wired.h"
#include "tests/support/Manager.h"
#include "tests/support/sockets.h"

namespace {

class Limits : public Wired {
protected:
    // Waits until the text is on standard error; returns how long that took.
    double SecondsUntilErr(const std::string& text) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(Await([&] { return daemon->Err().find(text) != std::string::npos; }, 60000));
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
};

TEST_F(Limits, AServerThatDoesNotAnswerBlocksForTwoSeconds) {
    StartPeers();
    device.Run("ip neigh add 10.77.0.9 lladdr 02:00:00:00:00:09 dev eth0");  // no such host
    StartDaemon({"-debug"}, {"ORVEX_CONNECT_TIMEOUT=1.999", "ORVEX_PEER_TIMEOUT=2s"});
    AwaitRunning();
    EXPECT_EQ(daemon->Err(), "orvex: ORVEX_PEER_TIMEOUT=2s ignored: not 0 to 86400 seconds\n");
    tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.9/1");
    const double seconds = SecondsUntilErr("tqrcli: connect(10.77.0.9:93) failed err=110\n");
    EXPECT_GT(seconds, 1.5);
    EXPECT_LT(seconds, 4);
    EXPECT_TRUE(Works());
}

// No data is in flight to the remote server, so keep-alive detects it.
TEST_F(Limits, ACutCableIsDetectedWhileNothingIsSent) {
    StartPeers();
    StartDaemon({"-debug"}, {"ORVEX_PEER_TIMEOUT=6"});
    AwaitRunning();
    ASSERT_EQ(studio.Run("ip link set eth0 down"), 0);
    EXPECT_LT(SecondsUntilErr("tqrcli: recv() failed err="), 7);
    EXPECT_EQ(daemon->Err().find("TQRD"), std::string::npos);
}

// A line is in flight, so keep-alive sends no probes.
TEST_F(Limits, ACutCableIsDetectedWhileALineIsInFlight) {
    if (std::string(ORVEX_EMULATOR).find("qemu") != std::string::npos) {
        GTEST_SKIP() << "qemu does not know TCP_INFO";
    }
    {
        const Host::Scope on(studio);
        tqrd.server.Listen(STUDIO_ADDRESS, 93);
    }
    {
        const Host::Scope on(device);
        remote.server.Listen("127.0.0.1", 93);
    }
    tqrd.server.Apply("CFG GPO 1 SRCA=127.0.0.1/1");
    StartDaemon({"-debug", "-r", STUDIO_ADDRESS}, {"ORVEX_PEER_TIMEOUT=6"});
    ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1"));
    Linger(200);
    ASSERT_EQ(studio.Run("ip link set eth0 down"), 0);
    remote.server.SendRaw("GPI 1 LHLHL\n");
    EXPECT_LT(SecondsUntilErr("tqrcli: recv() failed err=110\nConnection to TQRD lost\n"), 7);
}

// The control server reads nothing for twice the limit: its window is closed, and lines wait.
TEST_F(Limits, ASlowReaderIsNotDisconnected) {
    const int LINES = 400;
    int listener = -1;
    {
        const Host::Scope on(studio);
        listener = bound_socket(SOCK_STREAM, STUDIO_ADDRESS, 93, SO_RCVBUF, 2048);
        ASSERT_EQ(listen(listener, 1), 0);
    }
    {
        const Host::Scope on(device);
        remote.server.Listen("127.0.0.1", 93);
    }
    StartDaemon({"-debug", "-r", STUDIO_ADDRESS},
                {"ORVEX_CONNECT_TIMEOUT=1", "ORVEX_PEER_TIMEOUT=6"});
    const int slow = accept(listener, nullptr, nullptr);
    ASSERT_GE(slow, 0);
    const std::string config = "CFG GPO 1 SRCA=127.0.0.1/1\n";
    ASSERT_EQ(send(slow, config.data(), config.size(), 0), static_cast<ssize_t>(config.size()));
    ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1"));
    for (int i = 0; i < LINES; ++i) {
        remote.server.SendRaw("GPI 1 LHLHL\n");
    }
    Linger(12000);
    EXPECT_EQ(daemon->Err(), "");
    std::string read;
    EXPECT_TRUE(Await([&] {
        char buf[4096];
        const ssize_t got = recv(slow, buf, sizeof buf, MSG_DONTWAIT);
        read.append(buf, got > 0 ? static_cast<size_t>(got) : 0);
        return read.size() >= 12 + 12 + 12 * LINES;
    })) << read.size();
    EXPECT_EQ(daemon->Err(), "");
    close(slow);
    close(listener);
}

TEST_F(Limits, SubscribesAgainForAServerThatForgets) {
    StartPeers();
    StartDaemon({"-debug"}, {"ORVEX_RESUBSCRIBE=yes"});
    AwaitRunning();
    tqrd.server.Close();
    ASSERT_TRUE(AwaitErr("Connection to TQRD lost\n"));
    StartControl();
    ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 3"));
    EXPECT_EQ(tqrd.heard, (std::vector<std::string>{"SET", "CFG GPO", "ADD GPI 3"}));
    EXPECT_TRUE(Works());
}

TEST_F(Limits, ClosedStreamsDoNotReachTheControlServer) {
    StartPeers();
    StartDaemon({"-debug"}, {}, {"sh", "-c", R"(exec "$@" <&- >&- 2>&-)", "sh"});
    AwaitRunning();
    tqrd.heard.clear();
    tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.2:99/1");  // refused, which is reported
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 4 HHHHH"));
    EXPECT_TRUE(AnswersRead());
    EXPECT_EQ(tqrd.heard, (std::vector<std::string>{"GPO 4 HHHHH"}));
    EXPECT_TRUE(Works());
}

// It is not watched without limits: then a server may hold a turn for as long as the system tries.
TEST_F(Limits, TheServiceManagerSeesThatItTurns) {
    const Host::Scope on(device);
    const Manager manager;
    StartControl();
    std::vector<std::string> environment = {"NOTIFY_SOCKET=" + manager.Name(),
                                            "WATCHDOG_USEC=42000000"};
    StartDaemon({"-debug"}, environment);
    EXPECT_EQ(manager.Next(), "WATCHDOG_USEC=0");
    EXPECT_EQ(manager.Next(), "READY=1");
    daemon.reset();
    environment.insert(environment.end(), {"ORVEX_CONNECT_TIMEOUT=0.1", "ORVEX_PEER_TIMEOUT=2"});
    StartDaemon({"-debug"}, environment);
    EXPECT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    EXPECT_EQ(manager.Next(100), "");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    tqrd.server.Close();
    ASSERT_TRUE(AwaitErr("Connection to TQRD lost"));
    EXPECT_EQ(manager.Next(), "WATCHDOG=1") << "it waits for TQRD";
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    daemon->Signal(SIGSTOP);
    EXPECT_EQ(manager.Next(6000), "");
}

}  // namespace
