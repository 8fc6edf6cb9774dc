// The channel table: what control lines make of it and what they lead to.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "app/orvex.h"
#include "tests/support/loopback.h"
#include "tqr/dotted_quad.h"

namespace {

class ChannelTable : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_GE(local.open("127.0.0.1", static_cast<short>(tqrd.Port()), 2000), 0);
        ASSERT_TRUE(tqrd.Accept());
    }

    void TearDown() override {
        for (int i = 0; i < CHANNEL_COUNT; ++i) {
            gpiocli.close(static_cast<unsigned long>(i));
            channels[i] = {};
        }
        local.close();
    }

    // Sent to TQRD since the last call. What was sent has arrived: loopback has no delay of its
    // own.
    std::string Sent() {
        local.send("#");
        std::string sent;
        while (sent.empty() || sent.back() != '#') {
            const std::string next = tqrd.Receive(1);
            if (next.empty()) {
                return sent + "(lost)";
            }
            sent += next;
        }
        sent.pop_back();
        return sent;
    }

    LoopbackServer tqrd;
    LoopbackServer remote;
};

std::string Describe(const ChannelConfig& c) {
    char text[100];
    snprintf(text, sizeof text, "%u ach=%X ip=%s:%d gpi=%d", c.proto, c.ach, DottedQuad(c.ip).text,
             c.port, c.gpi);
    return text;
}

TEST_F(ChannelTable, ReadsSources) {
    const std::string NONE = "0 ach=0 ip=0.0.0.0:0 gpi=0";
    const std::string UNREADABLE = "0 ach=0 ip=255.255.255.255:0 gpi=0";
    const struct {
        const char* source;
        std::string config;
    } table[] = {
        {"3:7", "2 ach=307 ip=0.0.0.0:0 gpi=0"},
        {"7", "2 ach=7 ip=0.0.0.0:0 gpi=0"},
        {"0x12:0x34", "2 ach=1234 ip=0.0.0.0:0 gpi=0"},
        {"\"tqs://1:2\"", "2 ach=102 ip=0.0.0.0:0 gpi=0"},
        {"1:0x1FF", "2 ach=1FF ip=0.0.0.0:0 gpi=0"},
        {"0x1000001:1", "2 ach=101 ip=0.0.0.0:0 gpi=0"},
        {"4294967296", "2 ach=7FFFFFFF ip=0.0.0.0:0 gpi=0"},
        {"3:7 X=1.5", "2 ach=307 ip=0.0.0.0:0 gpi=0"},
        {"3:7,X=1.5", "1 ach=0 ip=0.0.0.3:7 gpi=0"},
        {"127.0.0.9", "1 ach=0 ip=127.0.0.9:93 gpi=0"},
        {"127.0.0.9/3", "1 ach=0 ip=127.0.0.9:93 gpi=2"},
        {"127.0.0.9:94/2", "1 ach=0 ip=127.0.0.9:94 gpi=1"},
        {"\"tqs://127.0.0.9:94/2\" NAME=\"x\"", "1 ach=0 ip=127.0.0.9:94 gpi=1"},
        {"127.0.0.9/3:94", "1 ach=0 ip=127.0.0.9:93 gpi=2"},
        {"127.0.0.9:60001", "1 ach=0 ip=127.0.0.9:60001 gpi=0"},
        {"127.0.0.9:0x5d", "1 ach=0 ip=127.0.0.9:0 gpi=0"},
        {"127.0.0.9:65629", "1 ach=0 ip=127.0.0.9:93 gpi=0"},
        {"127.0.0.9:4294967389", "1 ach=0 ip=127.0.0.9:65535 gpi=0"},
        {"127.0.0.9/0", "1 ach=0 ip=127.0.0.9:93 gpi=65535"},
        {"127.0.0.9/257", "1 ach=0 ip=127.0.0.9:93 gpi=256"},
        {"127.0.0.9/-99999999999", "1 ach=0 ip=127.0.0.9:93 gpi=65535"},
        {"x.y", UNREADABLE},
        {"255.255.255.255/2", UNREADABLE},
        {"none", NONE},
        {"", NONE},
        {"tqs://", NONE},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.source);
        parse_CFG((std::string("GPO 1 SRCA=") + row.source).c_str());
        EXPECT_EQ(Describe(channels[0]), row.config);
        EXPECT_EQ(parse_CFG((std::string("GPO 1,X=2 SRCA:") + row.source).c_str()), 0)
            << "the same again changes nothing";
    }
    parse_CFG(("GPO 1 SRCA=1.2.3.4" + std::string(300, '5') + "/2").c_str());
    EXPECT_EQ(Describe(channels[0]), UNREADABLE) << "cut before the '/'";
}

TEST_F(ChannelTable, IgnoresOtherConfigurationLines) {
    for (const char* text : {"GPI 1 SRCA=1:2", "GPO 0 SRCA=1:2", "GPO 33 SRCA=1:2", "GPO 1",
                             "GPO 1 XSRCA=1:2", "GPO 1 srca=1:2", "GPO x SRCA=1:2", "GPO", "",
                             "GPO 99999999999 SRCA=1:2", R"(GPO 1 N="a SRCA=1:2")"}) {
        EXPECT_EQ(parse_CFG(text), 0) << text;
    }
    EXPECT_EQ(parse_CFG("GPO 0x20SRCA=1:2"), 1) << "nothing need stand behind the number";
    EXPECT_EQ(Sent(), "GPO 32 HHHHH\nADD GPI 32\n");
}

// Every change of kind: what TQRD hears, and whether a remote connection is made and kept.
TEST_F(ChannelTable, TellsEveryChange) {
    const std::string at = "127.0.0.1:" + std::to_string(remote.Port());
    const std::string sources[][2] = {{"none", "x.y"}, {at + "/1", at + "/2"}, {"1:2", "1:3"}};
    const char* const ends[] = {"", "", "DEL GPI 5\n"};
    const char* const begins[] = {"", "", "ADD GPI 5\n"};
    for (int from = 0; from < 3; ++from) {
        for (int to = 0; to < 3; ++to) {
            SCOPED_TRACE(std::to_string(from) + " to " + std::to_string(to));
            parse_CFG(("GPO 5 SRCA=" + sources[from][0]).c_str());
            const bool was_connected = remote.HasConnection() && remote.Accept();
            EXPECT_EQ(was_connected, from == KIND_REMOTE);
            Sent();
            copy_state(channels[4].gpo_state, "LLLLL");
            copy_state(channels[4].gpi_state, "LHLHL");

            EXPECT_EQ(parse_CFG(("GPO 5 SRCA=" + sources[to][1]).c_str()), 1);
            EXPECT_EQ(Sent(), std::string(ends[from]) + "GPO 5 HHHHH\n" + begins[to]);
            EXPECT_EQ(std::string(channels[4].gpo_state, PIN_COUNT), "HHHHH");
            EXPECT_EQ(std::string(channels[4].gpi_state, PIN_COUNT), "LHLHL");
            if (was_connected) {
                EXPECT_EQ(remote.Receive(10), "ADD GPI 1\n");
                EXPECT_TRUE(remote.SeesEnd());
            }
            EXPECT_EQ(gpiocli.get_fd(4) != -1, to == KIND_REMOTE);
            if (to == KIND_REMOTE) {
                ASSERT_TRUE(remote.Accept());
                EXPECT_EQ(remote.Receive(10), "ADD GPI 2\n");
            }
            parse_CFG("GPO 5 SRCA=none");
        }
    }
}

TEST_F(ChannelTable, CutsTheRemoteInputTo8BitsForTheConnection) {
    const std::string at = "127.0.0.1:" + std::to_string(remote.Port());
    parse_CFG(("GPO 1 SRCA=" + at + "/0").c_str());
    parse_CFG(("GPO 2 SRCA=" + at + "/257").c_str());
    ASSERT_TRUE(remote.Accept());
    EXPECT_EQ(remote.Receive(22), "ADD GPI 256\nADD GPI 1\n");
}

TEST_F(ChannelTable, FollowsOutputsOfBusChannels1To8) {
    channels[0].proto = channels[7].proto = channels[8].proto = KIND_BUS;
    channels[1].proto = KIND_REMOTE;
    for (const char* text :
         {"1 LHLHLxx", "2 LLLLL", "8 L", "9 LLLLL", "0 LLLLL", "1", "1,HHHHH", "-1 L", "x L", ""}) {
        parse_GPO(text);
    }
    EXPECT_EQ(std::string(channels[0].gpo_state, PIN_COUNT), "LHLHL");
    EXPECT_EQ(std::string(channels[7].gpo_state, PIN_COUNT), std::string("L\0\0\0\0", 5));
    for (int i : {1, 8}) {
        EXPECT_EQ(std::string(channels[i].gpo_state, PIN_COUNT), std::string(5, '\0'));
    }
}

TEST(Settings, FollowTheInterfaceAddress) {
    const struct {
        const char* text;
        const char* address;
        int changed;
    } table[] = {
        {"A=1, NIC_IPADDR=10.0.0.1", "10.0.0.1", 1},   {"NIC_IPADDR:\"10.0.0.1\"", "10.0.0.1", 0},
        {"NIC_IPADDR=10.0.0", "0.0.0.0", 1},           {"NIC_IPADDR=", "0.0.0.0", 0},
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
    EXPECT_EQ(url2ip("1.2.3-4"), 0U);
}

TEST(CommandLine, SetsWhatItsWordsSay) {
    const struct {
        std::vector<const char*> words;
        const char* ip;
        int port;
    } table[] = {
        {{"-r", "10.1.2.3"}, "10.1.2.3", 93},
        {{"-r", "94"}, "127.0.0.1", 94},
        {{"-r", "0x5e"}, "127.0.0.1", 94},
        {{"-r", "10.1.2.3:0136"}, "10.1.2.3", 94},
        {{"-r", "10.1.2.3:0"}, "10.1.2.3", 93},
        {{"-r", "word"}, "127.0.0.1", 93},
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
    EXPECT_STREQ(DottedQuad(gpioip).text, "239.192.255.4");
}

}  // namespace
