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

    std::unique_ptr<BusPeer> peer;
    Lines reports;
};

// What it does with messages, the world checks; here is what it prints about them.
TEST_F(OnTheBus, TracesMessages) {
    StartAll();
    const std::string write = Hex(WRITE + "0001 00010208 07 40");
    for (const char* to : {GROUP, DEVICE_ADDRESS}) {
        peer->Send(peer->Packet('\0', write), to);
        EXPECT_EQ(HeardBehind(to), (Lines{"GPO 1 Lxxxx", "GPO 3 Lxxxx"}));
    }
    peer->Send(peer->Packet('\0', Hex(READ + "0002 FFFFFFFF 01 12345678 0000300D 07 00")), GROUP);
    peer->Send(Hex("034D0307 00000007 0000000000000000") + write, DEVICE_ADDRESS);
    for (const char* text : {"S< DGRM [WRNI 00010208=40]\n", "cmsgprocess ch=102 circ=8 value=40\n",
                             "cmsgprocess > TQR GPO 1 Lxxxx\n\n",
                             "I> 239.192.255.4:2055\n        [INDI FFFFFFFE=12345678,0000300D=00,",
                             "orvex server RUDP:WaitForMsg failed with error: 9003\n"}) {
        EXPECT_TRUE(AwaitOut(text)) << text;
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
