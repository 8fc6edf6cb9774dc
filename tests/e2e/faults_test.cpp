// One system call or allocation of the daemon fails, at its start or later. The daemon must print
// the right message or none, exit or continue as intended, and then serve as before.

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/e2e/Wired.h"

namespace {

using Lines = std::vector<std::string>;

const char* const FAULT_FILE = "/run/fault";
const int RUNS_ON = -1;

const std::string NO_CONTROL =
    "Failed to connect to 127.0.0.1:93\n"
    "Connection to TQRD lost\n"
    "Connection to TQRD reopened\n";

// A fault while a turn handles the stimulus, and what must be on standard error and output.
struct TurnFault {
    const char* fault;
    std::function<void()> stimulus;
    std::string err;
    std::string out;
};

class Faults : public Wired {
protected:
    static bool IsArmed() { return access(FAULT_FILE, F_OK) == 0; }
    static void Arm(const std::string& fault) { std::ofstream(FAULT_FILE) << fault; }

    void StartFaulty(const Lines& options = {"-debug"}) {
        StartDaemon(options, {std::string("LD_PRELOAD=") + ORVEX_INJECT,
                              "ASAN_OPTIONS=verify_asan_link_order=0"});
    }

    // Replaces the daemon by a new one, and clears what was received from the old one.
    void StartAnew(const std::string& fault, const Lines& options) {
        daemon.reset();
        Await([this] { return tqrd.server.ClientCount() + remote.server.ClientCount() == 0; });
        tqrd.heard.clear();
        remote.heard.clear();
        Arm(fault);
        StartFaulty(options);
    }

    // Waits until the daemon, which traces all it does, is idle.
    void Settle() {
        size_t before = 0;
        do {
            before = daemon->Out().size();
            Linger(50);
        } while (daemon->Out().size() != before);
    }

    // Undoes whatever a fault has done to the channels.
    void StartChannelsAnew() {
        for (const char* channel : {"1", "2", "3", "4"}) {
            tqrd.server.Apply("CFG GPO " + std::string(channel) + " SRCA=none");
        }
        ConfigureChannels();
        AwaitRunning();
    }

    void AwaitFault() {
        EXPECT_TRUE(Await([] { return !IsArmed(); })) << "no such call was made";
        unlink(FAULT_FILE);
    }

    std::vector<TurnFault> TurnFaults();
};

TEST_F(Faults, AtTheStart) {
    StartPeers();
    StartFaulty();
    AwaitRunning();
    const long descriptors = Descriptors();
    const struct {
        const char* fault;
        int status;
        std::string err;
        std::string out;
        Lines options = {"-debug"};
    } table[] = {
        {"daemon 1 11", 1, "", "", {}},
        {"fopen 1 13", RUNS_ON, "", ""},  // the pid file
        {"socket 1 24", RUNS_ON, "get_iface: socket() failed\n", "S join 239.192.255.4 on 0.0.0.0"},
        {"ioctl 1 19", RUNS_ON, "", "ioctl(SIOCGIFADDR) request failed err=13\n"},
        {"socket 2 24", RUNS_ON, "tqrcli: socket() failed err=24\n" + NO_CONTROL, ""},
        {"connect 1 110", RUNS_ON, "tqrcli: connect(127.0.0.1:93) failed err=110\n" + NO_CONTROL,
         ""},
        {"setsockopt 1 92", RUNS_ON, "tqrcli: setsockopt(TCP_NODELAY) failed err=92\n", ""},
        {"setsockopt 2 92", RUNS_ON, "tqrcli: setsockopt(SO_KEEPALIVE) failed err=92\n", ""},
        {"socket 3 24", 1, "orvex server at port 2060 open failed\n", ""},
        {"getsockopt 1 92", RUNS_ON, "", ""},  // uses the other buffer's size
        {"setsockopt 3 92", RUNS_ON, "", ""},  // SO_REUSEADDR
        {"setsockopt 4 92", RUNS_ON, "", ""},  // IP_MULTICAST_IF on a socket that only receives
        {"bind 1 98", 1, "orvex server at port 2060 open failed\n", ""},
        {"setsockopt 5 19", RUNS_ON, "orvex S join 239.192.255.4 failed err=19\n", ""},
        {"socket 4 24", 1, "orvex client open failed\n", "server at port 2060 opened on IF_ANY\n"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.fault);
        ASSERT_FALSE(HasFailure());
        StartAnew(row.fault, row.options);
        AwaitFault();
        if (row.status == RUNS_ON) {
            AwaitRunning();
            EXPECT_TRUE(Works());
            EXPECT_EQ(Descriptors(), descriptors);
        }
        EXPECT_TRUE(Await([&] { return daemon->Status() == row.status; })) << daemon->Status();
        EXPECT_EQ(daemon->Err(), row.err);
        EXPECT_NE(daemon->Out().find(row.out), std::string::npos) << daemon->Out();
    }
}

std::vector<TurnFault> Faults::TurnFaults() {
    const auto control = [this](const char* line) { return [=] { tqrd.server.SendRaw(line); }; };
    const auto follow = [this] { tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.2:94/9"); };
    const auto mirrored = [this] { remote.server.SendRaw("GPI 1 LLLLL\n"); };
    const auto read = [this] { SendRead(); };
    const std::string unread = "orvex server RUDP:WaitForMsg failed with error: ";
    const std::string unsent = "orvex RUDP:SendMsg failed with error: 1001\n";
    const std::string not_followed = "CGPIOClient Failed to connect to 10.77.0.2:94/8\n";
    return {
        {"select 1 4", control("GPI 3 LLHHH\n"), "", "parse_GPI 3 LLHHH\n"},  // read a turn later
        {"recv 1 104", control("GPI 3 LLLLL\n"),
         "tqrcli: recv() failed err=104\nConnection to TQRD lost\nConnection to TQRD reopened\n",
         ""},
        {"sendto 1 105", control("GPI 3 LHLHL\n"), "", unsent},
        {"setsockopt 2 19", control("SET NIC_IPADDR=10.77.0.3\n"),
         "orvex S join 239.192.255.4 failed err=19\n", ""},
        {"setsockopt 1 99", control("SET NIC_IPADDR=10.77.0.1\n"),
         "orvex S join 239.192.255.4 failed err=98\n",  // it is already a member
         "orvex: setsockopt(IP_MULTICAST_IF,10.77.0.1) failed error: 99\n"},
        {"select 1 4", read, "", unread + "9012\n"},
        {"recvfrom 1 12", read, "",
         "ERROR: WaitForMessage: Error on Read! (cbMsg=-1,WSA=12)\n" + unread + "9009\n"},
        {"sendto 1 1", read, "", ""},  // the acknowledgement: the sender repeats its message
        {"select 1 4", mirrored, "", "CGPIOClient < GPI 1 LLLLL\n"},
        {"send 1 32", mirrored, "", ""},
        {"connect 1 101", follow, "tqrcli: connect(10.77.0.2:94) failed err=101\n" + not_followed,
         ""},
        {"send 2 32", follow, "", ""},  // the subscription
        {"fopen 1 28", follow, "CGPIOClient::print_cons can't create /var/log/gpiocli.txt\n", ""},
    };
}

TEST_F(Faults, InATurn) {
    StartPeers();
    {
        const Host::Scope on(studio);
        remote.server.Listen(STUDIO_ADDRESS, 94);
    }
    device.Run("ip addr add 10.77.0.3/24 dev eth0");
    StartFaulty();
    AwaitRunning();
    const long descriptors = Descriptors();
    for (const TurnFault& row : TurnFaults()) {
        SCOPED_TRACE(std::string(row.fault) + ' ' + row.err + row.out);
        ASSERT_FALSE(HasFailure());
        Settle();
        const size_t err = daemon->Err().size();
        const size_t out = daemon->Out().size();
        Arm(row.fault);
        row.stimulus();
        AwaitFault();
        Await([&] { return daemon->Err().size() >= err + row.err.size(); });
        StartChannelsAnew();
        EXPECT_TRUE(Works());
        EXPECT_EQ(Descriptors(), descriptors);
        EXPECT_EQ(daemon->Err().substr(err), row.err);
        EXPECT_NE(daemon->Out().find(row.out, out), std::string::npos) << daemon->Out().substr(out);
    }
    daemon->Signal(SIGPIPE);  // as after a peer has closed
    EXPECT_TRUE(Works());
    Settle();
    Arm("select 3 9");
    remote.server.SendRaw("GPI 1 LLLLL\n");
    EXPECT_TRUE(AwaitOut("orvex: select() failed err=9\n"));
    EXPECT_TRUE(Await([&] { return !daemon->IsRunning(); }));
    EXPECT_EQ(daemon->Status(), 2);
}

// Each allocation on the path of an event fails once.
TEST_F(Faults, OfTheMemory) {
    StartPeers();
    StartFaulty();
    AwaitRunning();
    const long descriptors = Descriptors();
    const std::function<void()> stimuli[] = {
        [this] { SendWrite(); },  // the first datagram: its sender must be recorded
        [this] { tqrd.server.SendRaw("GPI 3 LHLHL\n"); },
        [this] { SendRead(); },
        [this] {  // the message contains a text and a message
            peer->Send(peer->Packet('\0', Hex("52454144 0003 00000001 02 0002 6869"
                                              "00000002 06 0006 00000000 0000 0000300D 07 00")),
                       DEVICE_ADDRESS);
        },
        [this] { tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.2/9"); },
        [this] { tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.1/9"); },
    };
    int fired = 0;
    for (const auto& stimulus : stimuli) {
        bool failed = true;
        for (int nth = 1; failed; ++nth) {
            ASSERT_FALSE(HasFailure()) << "allocation " << nth;
            Arm("malloc " + std::to_string(nth) + " 12");
            stimulus();
            tqrd.heard.clear();
            SendWrite();
            ASSERT_TRUE(AwaitHeard(tqrd, "GPO 3 Lxxxx"));
            for (const std::string& report : peer->Reports()) {
                EXPECT_GT(report.size(), 22U) << "without an item";
            }
            failed = !IsArmed();
            fired += failed ? 1 : 0;
            unlink(FAULT_FILE);
            StartChannelsAnew();
            EXPECT_TRUE(Works());
            EXPECT_EQ(Descriptors(), descriptors);
        }
    }
    EXPECT_GE(fired, 9);
    printf("%d allocations failed\n", fired);
}

}  // namespace
