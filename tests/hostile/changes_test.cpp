// Every change of one bit and every truncation of what peers send: does just what it now says.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/orvex.h"
#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "tests/support/BusModel.h"
#include "tests/support/Clock.h"
#include "tests/support/Host.h"
#include "tests/support/captures.h"
#include "tests/support/loopback.h"

namespace {

void for_each_change(const std::string& bytes, const std::function<void(const std::string&)>& act) {
    act(bytes);
    for (size_t i = 0; i < bytes.size(); ++i) {
        act(bytes.substr(0, i));
        for (int bit = 0; bit < 8; ++bit) {
            std::string changed = bytes;
            changed[i] = static_cast<char>(changed[i] ^ 1 << bit);
            act(changed);
        }
    }
}

class Changes : public testing::Test {
protected:
    static void SetUpTestSuite() {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(Host::Prepare());
        static const Host host;
        static const Host::Scope on(host);
        gpioip = htonl(INADDR_LOOPBACK);
        ASSERT_TRUE(rudpsrv.Open(2060, nullptr, nullptr, nullptr));
        ASSERT_TRUE(rudpcli.Open(nullptr, nullptr));
    }

    void SetUp() override {
        ASSERT_EQ(group.Open(false) | group.Bind(2055, "127.0.0.1"), 0);
        ASSERT_EQ(peer.Open(false) | peer.Bind(0, "127.0.0.1"), 0);
        tqr_port = tqrd.Port();
        Reset();
    }

    // Channel n has the address n on the bus and is high. Whatever an earlier line has left in the
    // connection's buffer is gone.
    void Reset() {
        for (uint32_t i = 0; i < CHANNEL_COUNT; ++i) {
            gpiocli.close(i);
            channels[i] = {{KIND_BUS, i + 1, 0, 0, 0}, {}, {}};
            copy_state(channels[i].gpi_state, "HHHHH");
            copy_state(channels[i].gpo_state, "HHHHH");
        }
        iface = htonl(INADDR_LOOPBACK);
        connect_control();
        ASSERT_TRUE(tqrd.Accept());
    }

    // What the daemon has told TQRD.
    std::string Told() {
        local.send("#");
        std::string told;
        do {
            told += tqrd.Receive(1);
        } while (told.back() != '#');
        return told.substr(0, told.size() - 1);
    }

    static std::vector<std::string> Received(CInetSocket& sock) {
        std::vector<std::string> datagrams;
        char buf[512];
        CInetAddress sender;
        while (sock.WaitForRead(0) > 0) {
            const int length = sock.Read(&sender, buf, sizeof buf);
            datagrams.emplace_back(buf, static_cast<size_t>(length));
        }
        return datagrams;
    }

    CMainLoop loop;
    LoopbackServer tqrd;
    CInetSocket group;
    CInetSocket peer;
};

TEST_F(Changes, OfPackets) {
    channels[0].ach = 0x102;
    const std::map<uint32_t, int> numbers = {{0x102, 1}, {2, 2}, {3, 3}};
    CInetAddress to;
    to.SetAddress("127.0.0.1", 2060);
    const struct {
        const char* capture;
        const char* told;
        size_t answers, reports;
    } table[] = {{"write", "GPO 1 Lxxxx DURATION:250\n", 0, 0},
                 {"read", "", 0, 2},
                 {"message", "GPO 1 xLxxx\nGPO 1 xxxxH DURATION:50\n", 1, 0},
                 {"indication", "", 0, 0},
                 {"acknowledgement", "", 0, 0}};
    for (const auto& row : table) {
        const std::string original = read_capture(row.capture);
        EXPECT_EQ(BusPacket(original).Lines(numbers), row.told);
        EXPECT_EQ(BusPacket(original).answer.empty(), row.answers == 0);
        EXPECT_EQ(BusPacket(original).PinsRead(numbers) > 0, row.reports > 0);
        for_each_change(original, [&](const std::string& bytes) {
            SCOPED_TRACE(row.capture + (" " + testing::PrintToString(bytes)));
            const BusPacket packet(bytes);
            Clock::Advance(11, 0);  // an earlier one with the same number is forgotten
            peer.Write(&to, bytes.data(), static_cast<int>(bytes.size()));
            ASSERT_TRUE(loop.Turn());
            EXPECT_EQ(Told(), packet.Lines(numbers));
            EXPECT_EQ(Received(group).size(), packet.PinsRead(numbers) > 0 ? 2u : 0u);
            const std::vector<std::string> answers = Received(peer);
            EXPECT_EQ(answers.empty() ? "" : answers[0], packet.answer);
        });
    }
}

// What a line may touch: nothing but what its first word and its number say.
struct Reach {
    explicit Reach(const std::string& line) {
        if (line.find('\0') != std::string::npos) {
            return;  // never comes to its end
        }
        const std::string word = line.substr(0, 4);
        is_config = line.compare(0, 8, "CFG GPO ") == 0;
        if (is_config || word == "GPI " || word == "GPO ") {
            number = strtol(line.c_str() + (is_config ? 8 : 4), nullptr, 0);
        }
        is_input = word == "GPI ";
        is_setting = word == "SET ";
    }

    long number = 0;
    bool is_config = false, is_input = false, is_setting = false;
};

TEST_F(Changes, OfControlLines) {
    LoopbackServer remote(93);
    const uint32_t own = htonl(INADDR_LOOPBACK);
    for (const char* original :
         {"CFG GPO 5 SRCA=3:7", "CFG GPO 4 SRCA=127.0.0.1/2", "CFG GPO 3 SRCA=\"tqs://9\" B=1",
          "GPI 25 LLHLL", "GPO 5 HLHLx", "SET NIC_IPADDR=10.0.0.1"}) {
        for_each_change(original, [&](const std::string& line) {
            SCOPED_TRACE(testing::PrintToString(line));
            const Reach reach(line);
            Reset();
            const std::vector<Channel> before(std::begin(channels), std::end(channels));
            tqrd.Send(line + "\n");
            ASSERT_TRUE(loop.Turn());
            bool touched = iface != own;
            EXPECT_TRUE(!touched || reach.is_setting);
            for (int i = 0; i < CHANNEL_COUNT; ++i) {
                const Channel& now = channels[i];
                const bool config = !(now == before[static_cast<size_t>(i)]);
                const bool input = std::string(now.gpi_state, PIN_COUNT) != "HHHHH";
                const bool output = std::string(now.gpo_state, PIN_COUNT) != "HHHHH";
                const bool is_meant = reach.number == i + 1;
                EXPECT_TRUE(!config || (is_meant && reach.is_config)) << i;
                EXPECT_TRUE(!input || (is_meant && reach.is_input)) << i;
                EXPECT_TRUE(!output || (is_meant && !reach.is_input && !reach.is_config)) << i;
                touched = touched || config || input || output;
            }
            const std::string n = std::to_string(reach.number) + "\n";
            const std::string told = Told();
            const std::string released =
                "DEL GPI " + n + "GPO " + std::to_string(reach.number) + " HHHHH\n";
            EXPECT_TRUE(told.empty() || told == released || told == released + "ADD GPI " + n)
                << told;
            EXPECT_EQ(told.empty(), !touched || !reach.is_config);
            EXPECT_TRUE(Received(group).empty() || reach.is_input);
            EXPECT_TRUE(touched || line != original) << "has its effect";
        });
    }
}

}  // namespace
