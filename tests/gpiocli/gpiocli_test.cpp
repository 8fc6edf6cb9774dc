#include "gpiocli/gpiocli.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <csignal>
#include <new>
#include <string>

#include "tests/support/loopback.h"

namespace {

bool memory_is_short = false;

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return memory_is_short ? nullptr : operator new(size);
}

namespace {

const unsigned long LOOPBACK = htonl(INADDR_LOOPBACK);

class GpioClient : public testing::Test {
protected:
    void SetUp() override { signal(SIGPIPE, SIG_IGN); }

    int Open(unsigned long entry, const LoopbackServer& at, unsigned char gpi) {
        return client.open(entry, LOOPBACK, at.Port(), gpi);
    }

    // The next state for some entries, or "(none)". On loopback, data has arrived once its sender's
    // send() returns.
    std::string Next(int entry) {
        mask = 0;
        const char* state = client.receive(entry, &mask);
        return state == nullptr ? "(none)" : state;
    }

    LoopbackServer server;
    CGPIOClient client{32};
    unsigned long mask = 0;
};

TEST_F(GpioClient, KeepsAnEntryThatCantBeConnected) {
    const unsigned short port = LoopbackServer().Port();
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.open(3, LOOPBACK, port, 1), -1);
    EXPECT_EQ(client.reconnect(3), -1);
    EXPECT_EQ(client.reconnect(4), -1);
    const std::string place = "127.0.0.1:" + std::to_string(port);
    const std::string refused = "tqrcli: connect(" + place + ") failed err=111\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              refused + "CGPIOClient Failed to connect to " + place + "/1\n" + refused +
                  "CGPIOClient Failed to connect to 127.0.0.1\n");
    LoopbackServer back(port);
    EXPECT_NE(client.reconnect(3), -1);
    ASSERT_TRUE(back.Accept());
    EXPECT_EQ(back.Receive(10), "ADD GPI 2\n");
}

TEST_F(GpioClient, JoinsWhatWasConnectedMeanwhile) {
    memory_is_short = true;
    EXPECT_EQ(Open(3, server, 0), -1);
    memory_is_short = false;
    EXPECT_EQ(Open(5, server, 1), 0);
    ASSERT_TRUE(server.Accept());
    EXPECT_EQ(client.reconnect(3), client.get_fd(5));
    EXPECT_EQ(server.Receive(20), "ADD GPI 2\nADD GPI 1\n");
    server.Send("GPI 2,L\nGPI 2 H\n");
    EXPECT_EQ(Next(5), "H") << "a blank follows the number";
}

TEST_F(GpioClient, HasNoEntriesOutOfRange) {
    for (int entry : {-1, 32}) {
        const unsigned long number = static_cast<unsigned long>(entry);
        EXPECT_EQ(Open(number, server, 0), -1);
        EXPECT_EQ(client.get_fd(entry), -1);
        EXPECT_EQ(client.reconnect(entry), -1);
        EXPECT_EQ(client.receive(entry, nullptr), nullptr);
        client.close(number);
    }
}

// The server 0.0.0.0 is this host. Empty entries hold the address 0 too, and follow nothing.
TEST_F(GpioClient, AnEmptyEntryDoesNotFollowServer0) {
    ASSERT_EQ(client.open(0, 0, server.Port(), 0), 0);
    client.close(0);
    ASSERT_EQ(client.open(1, 0, server.Port(), 0), 0);
    ASSERT_TRUE(server.Accept() && server.Accept());
    server.Send("GPI 1 L\n");
    EXPECT_EQ(Next(1), "L");
    EXPECT_EQ(mask, 1UL << 1);
}

}  // namespace
