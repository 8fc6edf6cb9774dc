#include "tqr/tqrcli.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/support/loopback.h"

namespace {

const int SIZE = 2000;
const long WAIT_US = 5000000;  // for lines that must arrive

class TqrClient : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_GE(client.open("127.0.0.1", static_cast<short>(server.Port()), SIZE), 0);
        ASSERT_TRUE(server.Accept());
    }

    // The next line, or "(none)".
    std::string Next(long wait = WAIT_US) {
        const char* line = client.recv(wait);
        return line == nullptr ? "(none)" : line;
    }

    LoopbackServer server;
    CTQRClient client;
};

// However the stream is split, the lines are the same, but for an empty line where a piece begins
// with the rest of a line end.
TEST_F(TqrClient, SplitsTheStreamIntoLines) {
    const std::string stream = "GPI 1 LHHHH\r\nGPI 2 HHHHH\n\nx\n";
    for (size_t cut = 0; cut < stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        std::string lines;
        for (const std::string& piece : {stream.substr(0, cut), stream.substr(cut)}) {
            server.Send(piece);
            for (std::string line = Next(piece.empty() ? 0 : WAIT_US); line != "(none)";
                 line = Next(0)) {
                lines += line.empty() && cut > 0 ? "" : line + "|";
            }
        }
        EXPECT_EQ(lines, "GPI 1 LHHHH|GPI 2 HHHHH|x|");
    }
}

TEST_F(TqrClient, AcceptsLinesUpToTheFullLength) {
    const std::string longest(SIZE - 1, 'a');
    server.Send(longest + "\n");
    EXPECT_EQ(Next(), longest);

    server.Send(std::string("ab\0cd\nef\n", 9));  // a NUL hides what follows
    server.Send(std::string(SIZE - 9, '\n'));
    EXPECT_EQ(Next(), "(none)");
    EXPECT_NE(client.get_fd(), -1) << "a full buffer alone does not close it";
    server.Send("\n");
    EXPECT_EQ(Next(), "(none)");
    EXPECT_EQ(client.get_fd(), -1);
    EXPECT_TRUE(server.SeesEnd());
}

TEST_F(TqrClient, LosesTheConnectionWithItsLines) {
    server.Send("A\nB\nhalf");
    EXPECT_EQ(Next(), "A");
    server.Drop();
    EXPECT_EQ(Next(), "(none)") << "the end of the stream is read before B is handed out";
    EXPECT_EQ(client.get_fd(), -1);
    EXPECT_EQ(client.send("x\n"), -1);
    EXPECT_EQ(Next(0), "(none)");
    client.close();
}

TEST_F(TqrClient, ReopensWithAnEmptyBuffer) {
    server.Send("half");
    EXPECT_EQ(Next(), "(none)");
    LoopbackServer second;
    ASSERT_GE(client.open(inet_addr("127.0.0.1"), static_cast<short>(second.Port()), SIZE), 0);
    EXPECT_TRUE(server.SeesEnd());
    ASSERT_TRUE(second.Accept());
    second.Send("whole\n");
    EXPECT_EQ(Next(), "whole");
    EXPECT_EQ(client.send("SET\nCFG GPO\n"), 12);
    EXPECT_EQ(second.Receive(12), "SET\nCFG GPO\n");
}

TEST(TqrClientOpen, ReportsWhatFailed) {
    CTQRClient client;
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.open("localhost", 93, SIZE), -1);
    EXPECT_EQ(client.open("127.0.0.1", 1, SIZE), -1);
    EXPECT_EQ(client.open("127.0.0.1", 1, -1), -2);
    const std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_NE(messages.find("tqrcli: connect(255.255.255.255:93) failed err="), std::string::npos);
    EXPECT_NE(messages.find("tqrcli: connect(127.0.0.1:1) failed err=111\n"), std::string::npos);
    EXPECT_NE(messages.find("tqrcli out of memory\n"), std::string::npos);
    EXPECT_EQ(client.get_fd(), -1);
}

}  // namespace
