// The channel table: how control lines change it, and what they cause.

#include <arpa/inet.h>

#include <vector>

#include "tests/app/InProcess.h"
#include "tests/support/sockets.h"

namespace {

using ChannelTable = InProcess;

TEST_F(ChannelTable, ReadsSources) {
    const struct {
        const char* source;
        uint32_t proto, ach;
        const char* ip;
        int port, gpi;
    } table[] = {
        {"0x12:0x34", KIND_BUS, 0x1234, "0.0.0.0", 0, 0},
        {"\"tqs://1:2\"", KIND_BUS, 0x102, "0.0.0.0", 0, 0},
        {"1:0x1FF", KIND_BUS, 0x1FF, "0.0.0.0", 0, 0},
        {"0x1000001:1", KIND_BUS, 0x101, "0.0.0.0", 0, 0},
        {"4294967296", KIND_BUS, 0x7FFFFFFF, "0.0.0.0", 0, 0},
        {"3:7 X=1.5", KIND_BUS, 0x307, "0.0.0.0", 0, 0},
        {"3:7,X=1.5", KIND_REMOTE, 0, "0.0.0.3", 7, 0},
        {"127.0.0.9", KIND_REMOTE, 0, "127.0.0.9", 93, 0},
        {"\"tqs://127.0.0.9:94/2\" NAME=\"x\"", KIND_REMOTE, 0, "127.0.0.9", 94, 1},
        {"127.0.0.9/3:94", KIND_REMOTE, 0, "127.0.0.9", 93, 2},
        {"127.0.0.9:0x5d", KIND_REMOTE, 0, "127.0.0.9", 0, 0},
        {"127.0.0.9:65629", KIND_REMOTE, 0, "127.0.0.9", 93, 0},
        {"127.0.0.9:4294967389", KIND_REMOTE, 0, "127.0.0.9", 65535, 0},
        {"127.0.0.9/0", KIND_REMOTE, 0, "127.0.0.9", 93, 65535},
        {"127.0.0.9/257", KIND_REMOTE, 0, "127.0.0.9", 93, 256},
        {"x.y", KIND_NONE, 0, "255.255.255.255", 0, 0},
        {"none", KIND_NONE, 0, "0.0.0.0", 0, 0},
        {"tqs://1.2.3.4", KIND_REMOTE, 0, "1.2.3.4", 93, 0},
        {"", KIND_NONE, 0, "0.0.0.0", 0, 0},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.source);
        const Channel& c = channels[0];
        parse_CFG((std::string("GPO 1 SRCA=") + row.source).c_str());
        EXPECT_EQ(c.proto, row.proto);
        EXPECT_EQ(c.ach, row.ach);
        EXPECT_STREQ(DottedQuad(c.ip).text, row.ip);
        EXPECT_EQ(c.port, row.port);
        EXPECT_EQ(c.gpi, row.gpi);
        EXPECT_EQ(parse_CFG((std::string("GPO 1,X=2 SRCA:") + row.source).c_str()), 0)
            << "the same again changes nothing";
    }
    parse_CFG(("GPO 1 SRCA=1.2.3.4" + std::string(300, '5') + "/2").c_str());
    EXPECT_EQ(channels[0].proto + channels[0].gpi, 0) << "cut before the '/': no address";
}

TEST_F(ChannelTable, IgnoresOtherConfigurationLines) {
    for (const char* text : {"GPI 1 SRCA=1:2", "GPO 0 SRCA=1:2", "GPO 33 SRCA=1:2",
                             "GPO 1 XSRCA=1:2", "GPO 1 srca=1:2", "GPO x SRCA=1:2", "",
                             "GPO 99999999999 SRCA=1:2", R"(GPO 1 N="a SRCA=1:2")"}) {
        EXPECT_EQ(parse_CFG(text), 0) << text;
    }
    EXPECT_EQ(parse_CFG("GPO 0x20SRCA=1:2"), 1) << "nothing needs to follow the number";
    EXPECT_EQ(Told(), "GPO 32 HHHHH\nADD GPI 32\n");
}

// Every change of kind: what TQRD is sent, and whether a remote connection is opened and kept.
TEST_F(ChannelTable, CarriesOutEveryChange) {
    const std::string sources[][2] = {{"none", "x.y"}, {Remote(1), Remote(258)}, {"1:2", "1:3"}};
    const char* const ends[] = {"", "", "DEL GPI 5\n"};
    const char* const begins[] = {"", "", "ADD GPI 5\n"};
    for (int from = 0; from < 3; ++from) {
        for (int to = 0; to < 3; ++to) {
            SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
            parse_CFG(("GPO 5 SRCA=" + sources[from][0]).c_str());
            const bool was_connected = remote.HasConnection() && remote.Accept();
            EXPECT_EQ(was_connected, from == KIND_REMOTE);
            Told();
            copy_state(channels[4].gpo_state, "LLLLL");
            copy_state(channels[4].gpi_state, "LHLHL");

            EXPECT_EQ(parse_CFG(("GPO 5 SRCA=" + sources[to][1]).c_str()), 1);
            EXPECT_EQ(Told(), std::string(ends[from]) + "GPO 5 HHHHH\n" + begins[to]);
            EXPECT_EQ(text_of(channels[4].gpo_state), "HHHHH");
            EXPECT_EQ(text_of(channels[4].gpi_state), "LHLHL");
            if (was_connected) {
                EXPECT_EQ(remote.Receive(11), "ADD GPI 1\n");
                EXPECT_TRUE(remote.SeesEnd());
            }
            EXPECT_EQ(gpiocli.get_fd(4) != -1, to == KIND_REMOTE);
            if (to == KIND_REMOTE) {
                ASSERT_TRUE(remote.Accept());
                EXPECT_EQ(remote.Receive(10), "ADD GPI 2\n") << "8 bits of the number count";
            }
            parse_CFG("GPO 5 SRCA=none");
        }
    }
}

TEST_F(ChannelTable, FollowsOutputsOfBusChannels1To8) {
    channels[0].proto = channels[7].proto = channels[8].proto = KIND_BUS;
    channels[1].proto = KIND_REMOTE;
    for (const char* text :
         {"1 LHLHLxx", "2 LLLLL", "8 L", "9 LLLLL", "0 LLLLL", "1", "1,HHHHH", "-1 L", ""}) {
        parse_GPO(text);
    }
    EXPECT_EQ(text_of(channels[0].gpo_state), "LHLHL");
    EXPECT_EQ(text_of(channels[7].gpo_state), std::string("L\0\0\0\0", 5));
    for (int i : {1, 8}) {
        EXPECT_EQ(text_of(channels[i].gpo_state), std::string(5, '\0'));
    }
}

// The identifier of a request is looked up first, which decides which value of a repeated tag is
// written.
TEST_F(ChannelTable, WritesTheValueAfterTheIdentifier) {
    channels[0].proto = KIND_BUS;
    channels[0].ach = 0x102;
    CMessage request(MSG_SIZE, MSG_GROW_BY);
    const unsigned char bytes[] =
        "WRNI\x00\x03\x00\x01\x02\x08\x07\x00\xFF\xFF\xFF\xFF\x01\x00\x00\x00\x05"
        "\x00\x01\x02\x08\x07\x40";
    ASSERT_EQ(request.SetData(reinterpret_cast<const char*>(bytes), sizeof bytes - 1), 27);
    cmsgprocess(request);
    EXPECT_EQ(Told(), "GPO 1 Lxxxx\nGPO 1 Lxxxx\n");
}

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

TEST(Settings, FollowTheInterfaceAddress) {
    const struct {
        const char* text;
        const char* address;
        int changed;
    } table[] = {
        {"A=1, NIC_IPADDR=10.0.0.1", "10.0.0.1", 1},   {"NIC_IPADDR:\"10.0.0.1\"", "10.0.0.1", 0},
        {"NIC_IPADDR=10.0.0-1", "0.0.0.0", 1},         {"NIC_IPADDR=", "0.0.0.0", 0},
        {"NIC_IPADDR=0x0A.010.2.300", "10.8.3.44", 1}, {"NIC=1.2.3.4", "10.8.3.44", 0},
    };
    iface = 0;
    for (const auto& row : table) {
        iface_changed = 0;
        parse_SET(row.text);
        EXPECT_STREQ(DottedQuad(iface).text, row.address) << row.text;
        EXPECT_EQ(iface_changed, row.changed) << row.text;
    }
    iface_changed = 0;
    EXPECT_EQ(url2ip(nullptr), 0U);
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
