// A remote input mirrored onto a local output, whatever happens to the peers.

#include <csignal>
#include <fstream>
#include <sstream>

#include "app/pidfile.h"
#include "tests/e2e/Site.h"

namespace {

using Lines = std::vector<std::string>;

std::string ReadFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class Mirror : public Site {
protected:
    // Channels 4 and 8 follow one input of the studio, channel 2 another.
    void Configure() {
        for (const char* line : {"CFG GPO 2 SRCA=10.77.0.2/7", "CFG GPO 4 SRCA=10.77.0.2/3",
                                 "CFG GPO 8 SRCA=\"tqs://10.77.0.2:93/3\" NAME=\"two words\""}) {
            ASSERT_EQ(tqrd.server.Apply(line), "");
        }
        ASSERT_EQ(remote.server.Apply("GPI 3 LHHHH"), "");
        StartRemote();
    }

    void StartAll() {
        Configure();
        StartControl();
        StartDaemon({"-debug", "-r", "127.0.0.1:0x5d"});
        AwaitMirrored();
    }

    void AwaitMirrored() {
        ASSERT_TRUE(AwaitHeard(tqrd, "GPO 8 LHHHH"));
        ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 3", 2));
        ASSERT_TRUE(Follows("LHHHL")) << "after the answers to all subscriptions";
    }

    // Changes the input and waits until the output follows.
    bool Follows(const std::string& state) {
        remote.server.Apply("GPI 3 " + state);
        return AwaitHeard(tqrd, "GPO 4 " + state) && AwaitHeard(tqrd, "GPO 8 " + state);
    }
};

TEST_F(Mirror, FollowsARemoteInput) {
    StartAll();
    EXPECT_EQ(remote.connections, 1);
    EXPECT_EQ(remote.heard, (Lines{"ADD GPI 7", "ADD GPI 3", "ADD GPI 3"}));
    tqrd.heard.clear();
    EXPECT_TRUE(Follows("LLHLh"));
    EXPECT_EQ(tqrd.heard, (Lines{"GPO 4 LLHLh", "GPO 8 LLHLh"}));

    const std::string table = ReadFile("/var/log/gpiocli.txt");
    EXPECT_EQ(table.rfind("Connection table:\r\n0 0.0.0.0/0 id=0 disconnected\r\n", 0), 0U);
    EXPECT_NE(table.find("\r\n1 10.77.0.2/6 id="), std::string::npos);
    EXPECT_EQ(table.find("\r\n3 10.77.0.2/2 id=0 "), std::string::npos);

    tqrd.heard.clear();
    tqrd.server.Apply("CFG GPO 4 SRCA=none");
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 4 HHHHH"));
    EXPECT_NE(ReadFile("/var/log/gpiocli.txt").find("\r\n3 0.0.0.0/0 id=0 disconnected\r\n"),
              std::string::npos);
    remote.server.Apply("GPI 3 HLHLH");
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 8 HLHLH"));
    EXPECT_EQ(tqrd.heard, (Lines{"GPO 4 HHHHH", "GPO 8 HLHLH"}));
    for (const char* channel : {"2", "8"}) {
        tqrd.server.Apply(std::string("CFG GPO ") + channel + " SRCA=none");
    }
    EXPECT_TRUE(Await([&] { return remote.server.ClientCount() == 0; }));
}

TEST_F(Site, PrintsItsUsage) {
    StartDaemon({"-r", "1.2.3.4:99", "-help", "-r", "5"});
    ASSERT_TRUE(Await([&] { return !daemon->IsRunning(); }));
    EXPECT_EQ(daemon->Status(), 0);
    EXPECT_EQ(daemon->Out(),
              "orvex <options>\n"
              "  -r ip[:port] or port - tqr server (default: 1.2.3.4:99)\n"
              "  -debug               - enable debug information\n"
              "  -help                - this usage info\n"
              "  -gpioip              - GPIO mcast addr (default 239.192.255.4)\n");
    EXPECT_EQ(daemon->Err(), "");
}

TEST_F(Site, DetachesAndLeavesItsPid) {
    StartControl();
    StartDaemon({});
    ASSERT_TRUE(AwaitHeard(tqrd, "CFG GPO"));
    ASSERT_TRUE(Await([&] { return !daemon->IsRunning(); }));
    EXPECT_EQ(daemon->Status(), 0);
    const std::string pid = ReadFile("/var/run/orvex.pid");
    const pid_t background = static_cast<pid_t>(std::stol("0" + pid));
    ASSERT_GT(background, 1);
    EXPECT_NE(background, daemon->Pid());
    EXPECT_EQ(pid, std::to_string(background) + "\n");
    tqrd.server.Apply("CFG GPO 3 SRCA=1:2");
    EXPECT_TRUE(AwaitHeard(tqrd, "ADD GPI 3")) << "it serves";
    EXPECT_EQ(kill(background, SIGTERM), 0);
    EXPECT_TRUE(Await([&] { return tqrd.server.ClientCount() == 0; }));
    EXPECT_EQ(ReadFile("/var/run/orvex.pid"), pid);
    EXPECT_EQ(remove_pid_file("/usr/sbin/orvex"), 0);
    EXPECT_EQ(ReadFile("/var/run/orvex.pid"), "");
}

TEST_F(Site, RunsWithoutItsInterfaceAndItsFiles) {
    device.Run("ip link del eth0");
    ASSERT_EQ(device.Run("umount /run && mount -t tmpfs -o ro none /run && umount /var/log && "
                         "mount -t tmpfs -o ro none /var/log"),
              0);
    StartControl();
    StartDaemon({"-debug"});
    ASSERT_TRUE(AwaitHeard(tqrd, "CFG GPO"));
    EXPECT_TRUE(AwaitOut("ioctl(SIOCGIFADDR) request failed err=13\n"));
    tqrd.server.Apply("CFG GPO 1 SRCA=127.0.0.1:93/2");
    EXPECT_TRUE(AwaitErr("CGPIOClient::print_cons can't create /var/log/gpiocli.txt\n"));
    EXPECT_TRUE(AwaitHeard(tqrd, "ADD GPI 2"));
}

}  // namespace
