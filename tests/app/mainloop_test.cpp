// The loop, turn by turn.

#include <new>

#include "tests/app/InProcess.h"
#include "tests/support/Clock.h"

namespace {

bool memory_is_short = false;

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return memory_is_short ? nullptr : operator new(size);
}

namespace {

class MainLoop : public InProcess {
protected:
    void Follow(int number, int gpi) {
        const std::string channel = "GPO " + std::to_string(number);
        parse_CFG((channel + " SRCA=" + Remote(gpi)).c_str());
        EXPECT_EQ(Told(), channel + " HHHHH\n");
    }

    // A turn with input, if only an empty line, so that it does not wait.
    void Turn(const std::string& control_lines = "\n") {
        tqrd.Send(control_lines);
        ASSERT_TRUE(loop.Turn());
    }

    CMainLoop loop;
};

TEST_F(MainLoop, TruncatesLongLinesBeforeTheirNewline) {
    Follow(32, 2);
    ASSERT_TRUE(remote.Accept());
    remote.Send("GPI 2 " + std::string(1993, 'L') + "\nGPI 2 " + std::string(1991, 'H') + "\n");
    Turn();
    EXPECT_EQ(Told(),
              "GPO 32 " + std::string(1992, 'L') + "GPO 32 " + std::string(1991, 'H') + "\n");
}

TEST_F(MainLoop, ReconnectsEntriesOpenedWithoutMemory) {
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
    EXPECT_FALSE(remote.HasConnection()) << "they share the connection";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "CGPIOClient Failed to connect to " + Remote(0) +
                  "\nCGPIOClient Failed to connect to " + Remote(1) + "\n");
}

}  // namespace
