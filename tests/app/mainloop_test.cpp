// The loop, turn by turn.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <new>
#include <string>

#include "app/orvex.h"
#include "tests/support/Clock.h"
#include "tests/support/loopback.h"

namespace {

long allocations = 0;

}  // namespace

void* operator new(size_t size) {
    ++allocations;
    return malloc(size);
}

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    ++allocations;
    return malloc(size);
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept {
    free(block);
}

namespace {

class MainLoop : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        tqr_port = tqrd.Port();
        connect_control();
        ASSERT_TRUE(tqrd.Accept());
    }

    void TearDown() override {
        for (int i = 0; i < CHANNEL_COUNT; ++i) {
            gpiocli.close(static_cast<unsigned long>(i));
            channels[i] = {};
        }
        local.close();
    }

    void Follow(int number, int gpi) {
        parse_CFG(("GPO " + std::to_string(number) +
                   " SRCA=127.0.0.1:" + std::to_string(remote.Port()) + "/" + std::to_string(gpi))
                      .c_str());
        EXPECT_EQ(tqrd.Receive(12 + (number > 9 ? 1 : 0)),
                  "GPO " + std::to_string(number) + " HHHHH\n");
    }

    void Turn() { ASSERT_TRUE(loop.Turn()); }

    // Runs a turn that has nothing to do and must not wait for it.
    void IdleTurn() {
        tqrd.Send("\n");
        Turn();
    }

    LoopbackServer tqrd;
    LoopbackServer remote;
    CMainLoop loop;
};

TEST_F(MainLoop, AChangedConfigurationEndsTheTurn) {
    Follow(4, 1);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 1 LLLLL\n");
    tqrd.Send("CFG GPO 9 SRCA=1:2\nCFG GPO 9 SRCA=1:2\nXYZ\nCFG\nGPI 9 L\n");
    Turn();
    const std::string changed = "GPO 9 HHHHH\nADD GPI 9\n";
    EXPECT_EQ(tqrd.Receive(changed.size()), changed);
    EXPECT_TRUE(tqrd.IsQuiet()) << "the remote line waits for the next turn";
    tqrd.Send("CFG GPO 9 SRCA=1:2\n");
    Turn();
    EXPECT_EQ(tqrd.Receive(12), "GPO 4 LLLLL\n") << "an unchanged one ends nothing";
}

TEST_F(MainLoop, ForwardsAllLinesOfASharedConnectionInOrder) {
    Follow(8, 1);
    Follow(4, 1);
    Follow(32, 2);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 1 L\nGPI 2 H\nGPI 3 x\nGPI 1 H");
    Turn();
    const std::string lines = "GPO 4 L\nGPO 8 L\nGPO 32 H\n";
    EXPECT_EQ(tqrd.Receive(lines.size()), lines);
    remote.Send("\n");
    Turn();
    EXPECT_EQ(tqrd.Receive(16), "GPO 4 H\nGPO 8 H\n");
    EXPECT_TRUE(tqrd.IsQuiet());
}

TEST_F(MainLoop, CutsAForwardedLineAtItsBuffer) {
    Follow(10, 1);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 1 " + std::string(1993, 'L') + "\nGPI 1 " + std::string(1991, 'H') + "\n");
    Turn();
    EXPECT_EQ(tqrd.Receive(1999), "GPO 10 " + std::string(1992, 'L')) << "the newline is cut off";
    EXPECT_EQ(tqrd.Receive(1999), "GPO 10 " + std::string(1991, 'H') + "\n");
}

TEST_F(MainLoop, SweepsAfterMoreThan27000Milliseconds) {
    Follow(4, 1);
    Follow(8, 1);
    ASSERT_TRUE(remote.Accept());
    remote.Drop();
    Turn();  // notices
    EXPECT_EQ(gpiocli.get_fd(3), -1);

    Clock::Advance(27, 999);  // 27000 ms and a part of one
    const long readings = Clock::Readings();
    IdleTurn();
    EXPECT_EQ(Clock::Readings(), readings + 1) << "one reading of the clock a turn";
    EXPECT_FALSE(remote.HasConnection());

    Clock::Advance(0, 1);
    IdleTurn();
    ASSERT_TRUE(remote.Accept());
    EXPECT_EQ(remote.Receive(20), "ADD GPI 1\nADD GPI 1\n");
    EXPECT_FALSE(remote.HasConnection()) << "once for both entries";

    remote.Drop();
    Turn();
    Clock::Advance(-3600, 0);
    IdleTurn();
    Clock::Advance(3600 + 27, 0);
    IdleTurn();
    EXPECT_FALSE(remote.HasConnection()) << "the last sweep is 27000 ms ago";
    Clock::Advance(0, 1000);
    IdleTurn();
    EXPECT_TRUE(remote.HasConnection());
}

TEST_F(MainLoop, AllocatesNothingForALine) {
    Follow(4, 1);
    ASSERT_TRUE(remote.Accept());
    long before = 0;
    for (int i = 0; i < 10; ++i) {
        remote.Send("GPI 1 LHLHL\n");
        tqrd.Send("GPO 1 LLLLL\nSET NIC_IPADDR=0.0.0.0\nCFG GPO 4 NAME=x\n");
        before = allocations;
        const bool fine = loop.Turn();
        ASSERT_EQ(allocations, before);
        ASSERT_TRUE(fine);
        EXPECT_EQ(tqrd.Receive(12), "GPO 4 LHLHL\n");
    }
    EXPECT_GT(before, 0) << "allocations are counted";
}

}  // namespace
