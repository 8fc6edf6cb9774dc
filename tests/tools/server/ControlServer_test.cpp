#include "tools/server/ControlServer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <system_error>

#include "tests/tools/server/TestClient.h"

namespace {

using Kind = ControlServer::EventKind;

class ControlServerTest : public ::testing::Test {
protected:
    bool StepUntil(const std::function<bool()>& condition) {
        return Await(condition, [this] { ControlServer::StepAll({&server, &other}, 5); });
    }

    void ExpectReceived(TestClient& client, const std::string& text) {
        StepUntil([&] { return !client.Read() || client.received.size() >= text.size(); });
        EXPECT_EQ(client.received, text);
        client.received.clear();
    }

    // Everything sent before has been handled once the answer arrives.
    void ExpectAlive(TestClient& client) {
        client.Send("\nADD GPI 256\n");
        ExpectReceived(client, "GPI 256 HHHHH\n");
    }

    std::map<Kind, int> seen;
    ControlServer server{[this](const ControlServer::Event& event) { ++seen[event.kind]; }};
    ControlServer other;
    const uint16_t port = server.Listen("127.0.0.1", 0);
};

TEST_F(ControlServerTest, ReportsToSubscribersOnly) {
    TestClient subscriber(port);
    TestClient stranger(server.Listen("127.0.0.1", 0));
    subscriber.Send("SET\nCFG GPO\nADD G");
    ASSERT_TRUE(StepUntil([this] { return server.ClientCount() == 2; }));
    subscriber.Send("PI 3\r\n\r\nADD GPI 4\nDEL GPI 4\r");
    ExpectReceived(subscriber, "GPI 3 HHHHH\nGPI 4 HHHHH\n");
    ExpectAlive(subscriber);
    for (const char* line : {"GPI 3 Lx", "GPI 3 Lx", "GPI 4 L", "CFG GPO 1 SRCA=2"}) {
        EXPECT_EQ(server.Apply(line), "");
    }
    EXPECT_NE(server.Apply("GPI L"), "");
    stranger.Send("GPO 1 xL DURATION:90\n");
    ExpectReceived(stranger, "CFG GPO 1 SRCA=2\nGPO 1 HLHHH\n");
    EXPECT_LE(server.Timeout(-1), 90);
    ExpectReceived(subscriber, "GPI 3 LHHHH\nCFG GPO 1 SRCA=2\nGPO 1 HLHHH\nGPO 1 HHHHH\n");
    EXPECT_EQ(server.Timeout(-1), -1);
    EXPECT_EQ(seen[Kind::Problem], 0);
}

TEST_F(ControlServerTest, SurvivesAnyBytes) {
    TestClient hostile(port);
    std::string bytes;
    for (int i = 0; i < 3000; ++i) {
        bytes += static_cast<char>(i * i * 7 + i / 5);
    }
    for (const std::string& attack : {bytes, std::string("GPO 1 %s%n\n\0\n", 13),
                                      std::string(LineBuffer::MAX_LINE, 'a') + "\n"}) {
        hostile.Send(attack);
        ExpectAlive(hostile);
    }
    EXPECT_GT(seen[Kind::Problem], 2);
    for (const char* end : {"", "\nSET\n"}) {
        TestClient overlong(port);
        overlong.Send(std::string(LineBuffer::MAX_LINE + 1, 'a') + end);
        EXPECT_TRUE(StepUntil([&] { return !overlong.Read(); }));
    }
    ExpectAlive(hostile);
}

TEST_F(ControlServerTest, BoundsWhatAClientLeavesUnread) {
    TestClient idle(port);
    ExpectAlive(idle);
    const std::string chunk(100000, 'x');
    TestClient reader(port);
    ExpectAlive(reader);
    EXPECT_TRUE(StepUntil([&] {
        server.SendRaw(chunk);
        ExpectReceived(reader, chunk);
        return server.ClientCount() == 1;
    }));
    EXPECT_EQ(seen[Kind::Problem], 1);
}

TEST_F(ControlServerTest, ClosesAndListensAgain) {
    EXPECT_THROW(other.Listen("127.0.0.1", port), std::system_error);
    EXPECT_THROW(other.Listen("localhost", 0), std::system_error);
    TestClient first(port);
    first.Send("ADD GPI 1\nGPO 1 L\n");
    ExpectReceived(first, "GPI 1 HHHHH\nGPO 1 LHHHH\n");
    server.Close();
    EXPECT_FALSE(first.Read());
    EXPECT_FALSE(TestClient(port).Read());

    EXPECT_EQ(server.Listen("127.0.0.1", server.Port()), port);
    TestClient second(port);
    TestClient elsewhere(other.Listen("127.0.0.1", 0));
    second.Send("GPO 1 H\n");
    ExpectReceived(second, "GPO 1 HHHHH\n");
    ExpectAlive(elsewhere);
    server.DropAll();
    EXPECT_FALSE(second.Read());
    EXPECT_TRUE(elsewhere.Read());
}

TEST_F(ControlServerTest, ServesManyAndRefusesTheRest) {
    std::list<TestClient> clients;
    while (clients.size() < ControlServer::MAX_CLIENTS) {
        ExpectAlive(clients.emplace_back(port));
    }
    TestClient surplus(port);
    EXPECT_TRUE(StepUntil([&] { return !surplus.Read(); }));
    server.Apply("GPI 256 L");
    for (TestClient& client : clients) {
        ExpectReceived(client, "GPI 256 LHHHH\n");
    }
}

TEST_F(ControlServerTest, WaitsForDescriptors) {
    TestClient client(port);
    rlimit limits = {};
    getrlimit(RLIMIT_NOFILE, &limits);
    const rlimit low = {64, limits.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    std::list<Descriptor> spent;
    while (spent.emplace_back(open("/dev/null", O_RDONLY)).IsOpen()) {
    }
    EXPECT_TRUE(StepUntil([this] { return seen[Kind::Problem] == 1; }));
    EXPECT_GT(server.Timeout(-1), 500);  // a waiting client does not keep the loop busy
    server.Step(1);
    setrlimit(RLIMIT_NOFILE, &limits);
    spent.clear();
    ExpectAlive(client);
    EXPECT_EQ(seen[Kind::Problem], 1);
}

}  // namespace
