// The daemon between its control server and a peer on the bus.

#include <memory>

#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "tests/e2e/BusPeer.h"
#include "tests/e2e/Site.h"

namespace {

using Lines = std::vector<std::string>;

const char* const GROUP = "239.192.255.4";
const std::string WRITE = "57524E49";
const std::string READ = "52454144";

class OnTheBus : public Site {
protected:
    // Channels 1 and 3 have the circuit-group address 1:2, channel 2 has 0x30.
    void StartAll(const Lines& options = {"-debug"}, const char* group = GROUP) {
        for (const char* line :
             {"CFG GPO 1 SRCA=1:2", "CFG GPO 2 SRCA=0x30", "CFG GPO 3 SRCA=\"tqs://1:2\"",
              "GPI 1 LHLhl", "GPI 2 HLHHH", "GPI 3 HHHHL"}) {
            ASSERT_EQ(tqrd.server.Apply(line), "");
        }
        StartControl();
        peer = std::make_unique<BusPeer>(studio, STUDIO_ADDRESS, group);
        StartDaemon(options);
        ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 3"));
        ASSERT_TRUE(AwaitReports(6));
        reports.clear();
        tqrd.heard.clear();
    }

    bool AwaitReports(size_t count) {
        return Await([&] {
            for (std::string& report : peer->Reports()) {
                reports.push_back(std::move(report));
            }
            return reports.size() >= count;
        });
    }

    // The lines received so far. Everything sent before has been handled once the write that this
    // sends, to pin 5 of channel 2, has been.
    Lines HeardBehind(const char* to = GROUP) {
        tqrd.heard.clear();
        peer->Send(peer->Packet('\0', Hex(WRITE + "0001 00003004 07 40")), to);
        AwaitHeard(tqrd, "GPO 2 xxxxL");
        Lines heard = tqrd.heard;
        if (!heard.empty()) {
            heard.pop_back();
        }
        return heard;
    }

    // The payload of the last two reports, which must be one message sent twice.
    std::string LastPayload() {
        if (reports.size() < 2) {
            return "(no report)";
        }
        const std::string& first = reports[reports.size() - 2];
        const std::string& second = reports.back();
        EXPECT_EQ(first.substr(0, 4), std::string("\3\0\2\7", 4));
        EXPECT_EQ(first.substr(8, 8), std::string(8, '\0'));
        EXPECT_EQ(first.substr(16), second.substr(16));
        EXPECT_EQ(static_cast<unsigned char>(second[7]), static_cast<unsigned char>(first[7] + 1));
        return second.substr(16);
    }

    std::unique_ptr<BusPeer> peer;
    Lines reports;
};

TEST_F(OnTheBus, WritesBecomeLines) {
    StartAll();
    const struct {
        std::string payload;
        Lines lines;
    } table[] = {
        {WRITE + "0001 00010208 07 40", {"GPO 1 Lxxxx", "GPO 3 Lxxxx"}},
        {WRITE + "0002 00003004 07 9F 00003007 07 1F",
         {"GPO 2 xxxxH DURATION:310", "GPO 2 xHxxx DURATION:7750"}},
        {WRITE + "0006 0000300D 07 40 00003003 07 40 00003000 07 40 0000300E 07 40"
                 "00013108 07 40 FFFFFFFF 01 00000001",
         {}},
    };
    for (const auto& row : table) {
        for (const char* to : {GROUP, DEVICE_ADDRESS}) {
            SCOPED_TRACE(row.payload + " to " + to);
            peer->Send(peer->Packet('\0', Hex(row.payload)), to);
            const Lines heard = HeardBehind(to);
            EXPECT_EQ(heard, row.lines);
        }
    }
    EXPECT_FALSE(Await([&] { return !peer->Reports().empty(); }, 50));
    EXPECT_TRUE(
        AwaitOut("cmsgprocess ch=102 circ=8 value=40\n"
                 "cmsgprocess > TQR GPO 1 Lxxxx\n\n"));
    EXPECT_TRUE(AwaitOut("S< DGRM [WRNI 00010208=40]\n"));
}

TEST_F(OnTheBus, ReadsAreAnsweredToTheGroup) {
    StartAll();
    tqrd.server.Apply("GPO 2 LHHHH");
    ASSERT_TRUE(AwaitOut("parse_GPO 2 LHHHH\n"));
    // Pins of both kinds, one of them twice, mixed with unknown circuits and an unknown address.
    peer->Send(peer->Packet('\0', Hex(READ + "0008 0000300D 07 00 FFFFFFFF 01 12345678"
                                             "0000300C 07 00 00003063 07 00 00003000 07 00"
                                             "00009908 07 00 00003008 01 00000000 0000300C 07 00")),
               DEVICE_ADDRESS);
    ASSERT_TRUE(AwaitReports(2));
    EXPECT_EQ(LastPayload(), Hex("494E4449 0006 FFFFFFFE 01 12345678 0000300D 07 00"
                                 "0000300C 07 01 00003008 07 01 FFFFFFFD 07 02"
                                 "FFFFFFFC 09 0000000000000000"));
    // Of two channels with one address, the last one's pin counts; 'l' counts as low.
    peer->Send(peer->Packet('\0', Hex(READ + "0004 0001020D 07 00 00010209 07 00"
                                             "FFFFFFFC 09 0102030405060708 00010204 07 00")),
               GROUP);
    ASSERT_TRUE(AwaitReports(4));
    EXPECT_EQ(LastPayload(), Hex("494E4449 0006 FFFFFFFE 01 00000000 0001020D 07 00"
                                 "00010209 07 01 00010204 07 00 FFFFFFFD 07 02"
                                 "FFFFFFFC 09 0102030405060708"));
    EXPECT_TRUE(AwaitOut("I> 239.192.255.4:2055\n        [INDI FFFFFFFE=12345678,0000300D=00,"));
}

TEST_F(OnTheBus, InputsAreReported) {
    StartAll();
    const struct {
        const char* line;
        const char* items;  // null: no report
    } table[] = {
        {"GPI 2 HLxHH", "0002 0000300D 07 00 0000300C 07 01"},
        {"GPI 02 LHHHH and more",
         "0005 0000300D 07 01 0000300C 07 00 0000300B 07 00 0000300A 07 00 00003009 07 00"},
        {"GPI 2 xLLLL", nullptr},
    };
    size_t expected = 0;
    for (const auto& row : table) {
        SCOPED_TRACE(row.line);
        tqrd.server.SendRaw(std::string(row.line) + "\n");
        if (row.items != nullptr) {
            expected += 2;
            ASSERT_TRUE(AwaitReports(expected));
            EXPECT_EQ(LastPayload(), Hex(std::string("494E4449") + row.items));
        }
    }
    tqrd.server.SendRaw("GPI 2 L\n");
    ASSERT_TRUE(AwaitReports(expected + 2));
    EXPECT_EQ(reports.size(), expected + 2) << "nothing else was reported";
}

// The error codes are the transport's; its tests cover all of them.
TEST_F(OnTheBus, PacketsWithoutAMessageAreReported) {
    StartAll();
    const std::string payload = Hex(WRITE + "0001 00003008 07 40");
    const struct {
        const char* header;  // the first four bytes
        size_t cut;          // how many bytes of the payload are sent
        const char* answer;  // the first four bytes
        const char* error;
    } table[] = {{"034D0307", 12, "00410007", "9003"},
                 {"034D0207", 11, "00410007", "9008"},
                 {"014D0206", 12, "004E0007", "1001"}};
    for (const auto& row : table) {
        SCOPED_TRACE(row.error);
        const std::string id = std::string(row.error, 4);
        peer->Send(Hex(row.header) + id + std::string(8, '\7') + payload.substr(0, row.cut),
                   DEVICE_ADDRESS);
        EXPECT_TRUE(HeardBehind().empty());
        EXPECT_TRUE(AwaitOut("orvex server RUDP:WaitForMsg failed with error: " + id + "\n"));
        EXPECT_EQ(peer->Answers(), Lines{Hex(row.answer) + id});
    }
}

TEST_F(OnTheBus, FollowsItsInterface) {
    if (ORVEX_EMULATOR[0] != '\0') {
        GTEST_SKIP() << "the emulator does not know IP_MULTICAST_IF";
    }
    device.Run("ip addr del 10.77.0.1/24 dev eth0");
    tqrd.server.Apply("CFG GPO 2 SRCA=0x30");
    StartControl();
    peer = std::make_unique<BusPeer>(studio, STUDIO_ADDRESS);
    StartDaemon();
    ASSERT_TRUE(AwaitOut("ioctl(SIOCGIFADDR) request failed err=63\n"));
    ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 2"));
    ASSERT_EQ(device.Run("ip addr add 10.77.0.5/24 dev eth0"), 0);
    tqrd.server.Apply("SET NIC_IPADDR=10.77.0.5");
    ASSERT_TRUE(
        AwaitOut("orvex: iface changed: 10.77.0.5\n"
                 "orvex S join 239.192.255.4 on 10.77.0.5\n"));
    EXPECT_TRUE(HeardBehind().empty());
    tqrd.server.Apply("GPI 2 LHHHH");
    EXPECT_TRUE(AwaitReports(2));
    const std::string not_joined = "orvex S join 239.192.255.4 failed err=19\n";
    EXPECT_EQ(daemon->Err(), not_joined) << "at the start; since then it has joined, once";

    tqrd.server.Apply("SET NIC_IPADDR=192.0.2.9");  // no interface has it
    EXPECT_TRUE(AwaitOut("orvex: setsockopt(IP_MULTICAST_IF,192.0.2.9) failed error: 99\n"));
    EXPECT_TRUE(Await([&] { return daemon->Err() == not_joined + not_joined; })) << daemon->Err();
    EXPECT_TRUE(HeardBehind().empty()) << "the earlier membership stays";
}

TEST_F(OnTheBus, JoinsTheConfiguredGroup) {
    StartAll({"-debug", "-gpioip", "239.1.1.1"}, "239.1.1.1");
    EXPECT_TRUE(
        AwaitOut("orvex server at port 2060 opened on IF_ANY\n"
                 "orvex S join 239.1.1.1 on 10.77.0.1\n"));
    EXPECT_TRUE(HeardBehind("239.1.1.1").empty());
}

TEST_F(OnTheBus, ServesWithoutTheGroup) {
    StartControl();
    StartDaemon({"-debug", "-gpioip", "10.1.2.3"});
    EXPECT_TRUE(AwaitErr("orvex S join 10.1.2.3 failed err=22\n"));
    EXPECT_TRUE(AwaitHeard(tqrd, "CFG GPO"));
}

}  // namespace
