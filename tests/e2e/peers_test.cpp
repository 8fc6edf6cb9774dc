// Peers that come and go, say nothing or stall, a cable that is pulled and a clock that is set: the
// others are served all the time, and everything is as before when it is over.

#include <fstream>

#include "tests/e2e/Wired.h"

namespace {

using Lines = std::vector<std::string>;

class Peers : public Wired {
protected:
    void SetUp() override {
        if (!CanSpeedUp()) {
            GTEST_SKIP() << "no libfaketime in this width";
        }
        Wired::SetUp();
    }

    void ExpectAsBefore(long descriptors, long resident, long events) {
        EXPECT_TRUE(Works());
        // The library that sets the clock opens a file now and then.
        EXPECT_TRUE(Await([&] { return Descriptors() == descriptors; })) << Descriptors();
        ExpectMemory(resident, events);
    }
};

TEST_F(Peers, ControlServerRestartedTwoHundredTimes) {
    const int RESTARTS = 200;
    StartAll(SpeedUp(100));
    long descriptors = 0;
    long resident = 0;
    for (int i = 0; i < RESTARTS && !HasFailure(); ++i) {
        // In the middle of traffic: with lines and datagrams on their way in both directions.
        SendWrite();
        SendRead();
        remote.server.SendRaw("GPI 1 LHLHL\nGPI 1 L");
        tqrd.server.SendRaw(i % 3 == 0 ? "GPI 3 HLHLH\nGPI 3 L" : "CFG GPO 3 SRCA=0x30\n");
        tqrd.server.Close();
        SendWrite();
        remote.server.SendRaw("HLHL\n");
        tqrd.heard.clear();
        StartControl();
        ASSERT_TRUE(AwaitHeard(tqrd, "CFG GPO")) << i;
        EXPECT_TRUE(Works()) << i;
        EXPECT_EQ(tqrd.Count("ADD GPI 3"), 0) << "the table outlives the connection";
        if (i == 20) {
            descriptors = Descriptors();
            resident = ResidentKiB();
        }
    }
    EXPECT_EQ(remote.connections, 1);
    ExpectAsBefore(descriptors, resident, RESTARTS - 20);
}

// Three servers of no use beside one that works.
TEST_F(Peers, RemoteServersOfNoUse) {
    Peer silent;
    Peer closing;
    Peer stalling;
    StartPeers();
    const std::pair<Peer*, uint16_t> servers[] = {{&silent, 94}, {&closing, 95}, {&stalling, 96}};
    for (const auto& [server, port] : servers) {
        const Host::Scope on(studio);
        server->server.Listen(STUDIO_ADDRESS, port);
        tqrd.server.Apply("CFG GPO " + std::to_string(port - 80) +
                          " SRCA=10.77.0.2:" + std::to_string(port) + "/1");
    }
    const auto serve = [&] {
        SimServer::StepAll({&silent.server, &closing.server, &stalling.server}, 0);
    };
    const int SWEEPS = 60;
    StartAll(SpeedUp(200));
    long descriptors = 0;
    long resident = 0;
    for (int sweep = 1; sweep <= SWEEPS && !HasFailure(); ++sweep) {
        ASSERT_TRUE(Await([&] {
            serve();
            closing.server.DropAll();
            return closing.connections >= sweep;
        })) << sweep;
        EXPECT_TRUE(Works());
        if (sweep == 10) {
            stalling.server.SendRaw("GPI 1 LL");
            descriptors = Descriptors();
            resident = ResidentKiB();
        }
    }
    EXPECT_EQ(silent.connections + stalling.connections, 2);
    EXPECT_EQ(tqrd.Count("GPO 16 LL"), 0);
    ExpectAsBefore(descriptors, resident, SWEEPS - 10);
    stalling.server.SendRaw("LLL\n");
    EXPECT_TRUE(Await([&] {
        serve();
        return tqrd.Count("GPO 16 LLLLL") == 1;
    }));
}

TEST_F(Peers, TheCableIsPulled) {
    StartAll();
    const long descriptors = Descriptors();
    const long resident = ResidentKiB();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(studio.Run("ip link set eth0 down"), 0);
        remote.server.SendRaw("GPI 1 LHLHL\n");
        tqrd.server.SendRaw("GPI 3 LHLHL\nGPI 3 HHHHH\n");
        Linger(300);
        EXPECT_EQ(tqrd.Count("GPO 1 LHLHL"), 0);
        ASSERT_EQ(studio.Run("ip link set eth0 up && ip route add 224.0.0.0/4 dev eth0"), 0);
        EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 LHLHL")) << "the same connection carries on";
        EXPECT_TRUE(Works());
        tqrd.heard.clear();
        peer->Send(peer->Packet('\0', Hex("57524E49 0001 00003007 07 40")), "239.192.255.4");
        EXPECT_TRUE(AwaitHeard(tqrd, "GPO 3 xLxxx")) << "it is a member of the group still";
    }
    EXPECT_EQ(remote.connections, 1);
    ExpectAsBefore(descriptors, resident, 3);
}

TEST_F(Peers, TheClockIsSetBackAnHour) {
    const char* const CLOCK = "/run/clock";
    const auto set_clock = [&](const char* offset) { std::ofstream(CLOCK) << offset; };
    set_clock("+0");
    StartAll(
        {SpeedUp(1)[0], std::string("FAKETIME_TIMESTAMP_FILE=") + CLOCK, "FAKETIME_NO_CACHE=1"});
    for (const char* offset : {"-60", "+0"}) {  // what the library needs is in memory behind this
        set_clock(offset);
        EXPECT_TRUE(Works());
    }
    const long descriptors = Descriptors();
    const long resident = ResidentKiB();
    for (const char* offset : {"-3600s", "+3600s", "-1", "+0"}) {
        set_clock(offset);
        EXPECT_TRUE(Works()) << offset;
        ExpectAsBefore(descriptors, resident, 1);
        const long cpu = CpuMs();
        Linger(300);
        EXPECT_LE(CpuMs() - cpu, 10) << offset;
    }
    remote.server.DropAll();
    Linger(100);
    set_clock("+7200s");
    EXPECT_TRUE(Await([&] {
        SendWrite();
        return remote.connections == 2;
    })) << "the sweep is overdue";
    ExpectAsBefore(descriptors, resident, 1);
}

}  // namespace
