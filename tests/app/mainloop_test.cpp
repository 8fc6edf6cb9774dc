// The loop, turn by turn.

#include <cstdlib>
#include <new>

#include "tests/app/InProcess.h"
#include "tests/support/Clock.h"

namespace {

long allocations = 0;
bool memory_is_short = false;

}  // namespace

void* operator new(size_t size) {
    ++allocations;
    return malloc(size);
}

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return memory_is_short ? nullptr : operator new(size);
}

void operator delete(void* block) noexcept {
    free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept {
    free(block);
}

namespace {

class MainLoop : public InProcess {
protected:
    void Follow(int number, int gpi) {
        const std::string channel = "GPO " + std::to_string(number);
        parse_CFG((channel + " SRCA=" + Remote(gpi)).c_str());
        EXPECT_EQ(Told(), channel + " HHHHH\n");
    }

    // One that has something to do, if only an empty line, and so does not wait.
    void Turn(const std::string& control_lines = "\n") {
        tqrd.Send(control_lines);
        ASSERT_TRUE(loop.Turn());
    }

    CMainLoop loop;
};

TEST_F(MainLoop, AChangedConfigurationEndsTheTurn) {
    Follow(4, 1);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 1 LLLLL\n");
    Turn("CFG GPO 9 SRCA=1:2\nCFG GPO 9 SRCA=1:2\nXYZ\nCFG\nGPI 9 L\n");
    EXPECT_EQ(Told(), "GPO 9 HHHHH\nADD GPI 9\n") << "the remote line waits for the next turn";
    Turn("CFG GPO 9 SRCA=1:2\n");
    EXPECT_EQ(Told(), "GPO 4 LLLLL\n") << "an unchanged one ends nothing";
}

TEST_F(MainLoop, ForwardsAllLinesOfASharedConnectionInOrder) {
    Follow(8, 1);
    Follow(4, 1);
    Follow(32, 2);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 1 L\nGPI 2 H\nGPI 3 x\nGPI 1 H");
    Turn();
    EXPECT_EQ(Told(), "GPO 4 L\nGPO 8 L\nGPO 32 H\n");
    remote.Send("\nGPI 2 " + std::string(1993, 'L') + "\nGPI 2 " + std::string(1991, 'H') + "\n");
    Turn();
    EXPECT_EQ(Told(), "GPO 4 H\nGPO 8 H\nGPO 32 " + std::string(1992, 'L') + "GPO 32 " +
                          std::string(1991, 'H') + "\n")
        << "the newline of the first is cut off";
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
    Turn();
    EXPECT_EQ(Clock::Readings(), readings + 1) << "one reading of the clock a turn";
    EXPECT_FALSE(remote.HasConnection());

    Clock::Advance(0, 1);
    Turn();
    ASSERT_TRUE(remote.Accept());
    EXPECT_EQ(remote.Receive(20), "ADD GPI 1\nADD GPI 1\n");
    EXPECT_FALSE(remote.HasConnection()) << "once for both entries";

    remote.Drop();
    Turn();
    Clock::Advance(-3600, 0);
    Turn();
    Clock::Advance(3600 + 27, 0);
    Turn();
    EXPECT_FALSE(remote.HasConnection()) << "the last sweep is 27000 ms ago";
    Clock::Advance(0, 1000);
    Turn();
    EXPECT_TRUE(remote.HasConnection());
}

TEST_F(MainLoop, SweepsWhatWasOpenedWithoutMemory) {
    testing::internal::CaptureStderr();
    memory_is_short = true;
    Follow(4, 1);
    Follow(8, 2);
    memory_is_short = false;
    Follow(12, 3);
    ASSERT_TRUE(remote.Accept());
    EXPECT_EQ(remote.Receive(10), "ADD GPI 3\n");
    Clock::Advance(28, 0);
    Turn();
    EXPECT_EQ(remote.Receive(20), "ADD GPI 1\nADD GPI 2\n");
    EXPECT_FALSE(remote.HasConnection()) << "they join it";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CGPIOClient Failed to connect to " + Remote(0) +
                  "\nCGPIOClient Failed to connect to " + Remote(1) + "\n");
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
