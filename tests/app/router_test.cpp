// The router's functions, as app/orvex.h alone declares them.

#include "app/orvex.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/loopback.h"
#include "tests/support/sockets.h"

namespace {

// Of items with one tag the last value stays, in the first place; items without a value and what
// follows a NUL in a text are left out.
TEST(Delivery, SendsACopyTwice) {
    CMsg2 msg(0, 16);
    const std::string items[] = {std::string("\0\0\0\1\7\1", 6), std::string("\0\0\0\2\14\0\5", 7),
                                 std::string("\0\0\0\3\2\0\3a\0b", 10),
                                 std::string("\0\0\0\1\7\2", 6)};
    std::string bytes = "INDI" + std::string("\0\4", 2);
    for (const std::string& item : items) {
        bytes += item;
    }
    ASSERT_EQ(msg.SetData(bytes.data(), bytes.size()), bytes.size());
    const int sock = bound_socket(SOCK_DGRAM, "127.0.0.1", 0);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    getsockname(sock, reinterpret_cast<sockaddr*>(&own), &size);
    CRUdpLayer3Client client(0, 1000);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    CSvcAddress dest(INADDR_LOOPBACK, ntohs(own.sin_port));
    deliver_msg(msg, client, dest);
    for (int i = 0; i < 2; ++i) {
        char packet[100];
        const ssize_t length = recv(sock, packet, sizeof packet, MSG_DONTWAIT);
        ASSERT_GT(length, 16);
        EXPECT_EQ(std::string(packet + 16, static_cast<size_t>(length) - 16),
                  std::string("INDI\0\2\0\0\0\1\7\2\0\0\0\3\2\0\2a\0", 21));
    }
    close(sock);
}

// The identifier of a request is looked up first, which decides which value of a repeated tag is
// written.
TEST(Write, TakesTheValueAfterTheIdentifier) {
    LoopbackServer tqrd;
    local.open("127.0.0.1", static_cast<short>(tqrd.Port()), LINE_SIZE);
    ASSERT_TRUE(tqrd.Accept());
    channels[0].proto = KIND_BUS;
    channels[0].ach = 0x102;
    CMessage request(MSG_SIZE, MSG_GROW_BY);
    const unsigned char bytes[] =
        "WRNI\x00\x03\x00\x01\x02\x08\x07\x00\xFF\xFF\xFF\xFF\x01\x00\x00\x00\x05"
        "\x00\x01\x02\x08\x07\x40";
    ASSERT_EQ(request.SetData(reinterpret_cast<const char*>(bytes), sizeof bytes - 1), 27);
    cmsgprocess(request);
    EXPECT_EQ(tqrd.Receive(24), "GPO 1 Lxxxx\nGPO 1 Lxxxx\n");
    channels[0] = {};
    local.close();
}

TEST(CommandLine, AppliesItsWords) {
    const struct {
        std::vector<const char*> words;
        const char* ip;
        int port;
    } table[] = {
        {{"-r", "10.1.2.3"}, "10.1.2.3", 93},
        {{"-r", "0x5e"}, "127.0.0.1", 94},
        {{"-r", "10.1.2.3:0136"}, "10.1.2.3", 94},
        {{"-r", "10.1.2.3:0"}, "10.1.2.3", 93},
        {{"-r", ":95"}, "", 95},
        {{"-r", "1.2.3.4:5:6"}, "1.2.3.4", 5},
        {{"-r", "65536"}, "127.0.0.1", 0},
        {{"-r", "4294967296"}, "127.0.0.1", 65535},
        {{"-r", "-debug"}, "127.0.0.1", 93},
        {{"what", "-x", "-r"}, "127.0.0.1", 93},
        {{"-r", "1.2.3.4", "-r", "99"}, "1.2.3.4", 99},
    };
    for (const auto& row : table) {
        tqr_ip = "127.0.0.1";
        tqr_port = 93;
        std::vector<char*> argv = {nullptr};
        for (const char* word : row.words) {
            argv.push_back(const_cast<char*>(word));
        }
        parse_commands(static_cast<int>(argv.size()), argv.data());
        EXPECT_EQ(tqr_ip, row.ip) << row.words.back();
        EXPECT_EQ(tqr_port, row.port) << row.words.back();
        EXPECT_EQ(dbg, 0);
    }
}

}  // namespace
