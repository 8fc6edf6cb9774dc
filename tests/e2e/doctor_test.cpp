// orvexctl doctor on the device, with each fault provoked for real.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/e2e/Site.h"
#include "tests/support/sockets.h"

namespace {

using Json = nlohmann::json;

class Doctor : public Site {
protected:
    void SetUp() override {
        if (ORVEX_EMULATOR[0] != '\0') {
            GTEST_SKIP() << "a program under an emulator has another name";
        }
        Site::SetUp();
        ASSERT_EQ(device.Run("sysctl -qw net.ipv4.tcp_syn_retries=2"), 0);
        ASSERT_EQ(tqrd.server.Apply("CFG GPO 1 SRCA=1:2"), "");
        ASSERT_EQ(tqrd.server.Apply("CFG GPO 2 SRCA=10.77.0.2/1"), "");
    }

    // A daemon of its own on the other host, with the same channel.
    void StartOther() {
        ASSERT_EQ(other_tqrd.server.Apply("CFG GPO 1 SRCA=1:2"), "");
        const Host::Scope on(studio);
        other_tqrd.server.Listen("127.0.0.1", 93);
        other_daemon = std::make_unique<Process>(std::vector<std::string>{ORVEX_PROGRAM, "-debug"});
        ASSERT_TRUE(Await([this] {
            ControlServer::StepAll({&other_tqrd.server}, 5);
            return other_tqrd.Count("ADD GPI 1") > 0;
        }));
    }

    // Starts a device on which all is well.
    void StartWell(const std::vector<std::string>& options = {"-debug"}) {
        StartRemote();
        StartControl();
        StartDaemon(options);
        ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 1"));
        ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1"));
    }

    int Run(std::vector<std::string> arguments, const char* command = "doctor",
            const std::vector<std::string>& wrapper = {}) {
        arguments.insert(arguments.begin(), {ORVEXCTL_PROGRAM, command, "-W", "0.5"});
        arguments.insert(arguments.begin(), wrapper.begin(), wrapper.end());
        const Host::Scope on(device);
        Process doctor(arguments);
        EXPECT_TRUE(Await([&doctor] {
            doctor.Pump();
            return !doctor.IsRunning();
        }));
        out = doctor.Out();
        EXPECT_EQ(doctor.Err(), "");
        return doctor.Status();
    }

    // Expects exactly these checks to fail, the first for this reason.
    void ExpectTroubles(const std::vector<std::string>& checks, const std::string& reason) {
        EXPECT_EQ(Run({"--json"}), 1);
        std::vector<std::string> failed;
        std::string text;
        mend.clear();
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            const Json finding = Json::parse(line);
            if (finding["status"] == "critical" || finding["status"] == "warning") {
                failed.push_back(finding["check"]);
                text += std::string(finding["finding"]) + "\n";
                EXPECT_NE(finding["mend"], "");
                mend = mend.empty() ? std::string(finding["mend"]) : mend;
            }
        }
        EXPECT_EQ(failed, checks) << out;
        EXPECT_NE(text.substr(0, text.find('\n')).find(reason), std::string::npos) << text;
    }

    std::string out;
    std::string mend;  // of the first trouble
    Peer other_tqrd;
    std::unique_ptr<Process> other_daemon;
};

// Beside the daemon there is a zombie process of the same name.
TEST_F(Doctor, FindsNothingWhenAllIsWell) {
    StartWell();
    const pid_t ended = fork();
    if (ended == 0) {
        prctl(PR_SET_NAME, "orvex");
        _exit(0);
    }
    EXPECT_EQ(Run({}), 0) << out;
    EXPECT_EQ(out.find("note"), std::string::npos) << out;
    EXPECT_NE(out.find("ok    inputs"), std::string::npos) << out;
    EXPECT_EQ(Run({"--plugin"}), 0);
    EXPECT_EQ(out,
              "ORVEX OK - all is well | waiting=0B lost=0c bus_channels=1 "
              "remote_channels=1\n");
    waitpid(ended, nullptr, 0);
}

TEST_F(Doctor, ShowsChannels) {
    StartControl();
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 3 SRCA=1:300"), "");
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 4 SRC=1:3"), "");
    EXPECT_EQ(Run({}, "channels"), 0);
    EXPECT_EQ(out,
              "OUTPUT  SOURCE       DRIVEN BY                  STATE  INPUT\n"
              "1       1:2          writes on the bus to 1:2   -      HHHHH\n"
              "2       10.77.0.2/1  input 1 of 10.77.0.2:93    -\n"
              "3       1:300        writes on the bus to 1:44  -      HHHHH\n"
              "        The second number has 8 bits: 300 overflows into the first one, which "
              "makes 1:44.\n"
              "4       -            nothing                    -\n"
              "        No field SRCA: the daemon ignores the line CFG GPO 4 SRC=1:3\n");
    EXPECT_EQ(Run({"--json"}, "channels"), 0);
    const Json row = Json::parse(out.substr(0, out.find('\n')));
    EXPECT_EQ(row["address"], 0x102);
    EXPECT_EQ(row["input"], "HHHHH");
    EXPECT_TRUE(row["output"].is_null());
    EXPECT_EQ(Run({"--explain", "SRCA=10.0.0.9/3:94"}, "channels"), 0);
    EXPECT_EQ(out.substr(0, out.find('\n')), "input 3 of 10.0.0.9:93");
}

TEST_F(Doctor, FindsThatTqrdIsDown) {
    StartWell();
    tqrd.server.Close();
    ASSERT_TRUE(AwaitErr("Connection to TQRD lost"));
    ExpectTroubles({"TQRD"}, "127.0.0.1:93 can't be reached, so nothing is served: it refuses");
    EXPECT_EQ(Run({"--plugin"}), 2);
    EXPECT_EQ(out.find("ORVEX CRITICAL - TQRD: "), 0U) << out;
}

TEST_F(Doctor, FindsServersThatDoNotAnswer) {
    ASSERT_EQ(studio.Run("ip route add blackhole "
                         "10.77.0.1/32"),
              0);
    StartControl();
    StartDaemon();
    ASSERT_TRUE(AwaitHeard(tqrd, "GPO 2 HHHHH"));
    ExpectTroubles({"remote", "read"}, "10.77.0.2:93 does not answer, and the daemon hangs");
}

TEST_F(Doctor, FindsRemoteServersThatAreDown) {
    StartWell();
    remote.server.Close();
    ASSERT_TRUE(AwaitErr("recv() failed"));
    ExpectTroubles({"remote"}, "drives output 2: it refuses the connection");
}

TEST_F(Doctor, FindsTheWrongGroup) {
    StartWell({"-debug", "-gpioip", "239.1.1.1"});
    ExpectTroubles({"group", "read"}, "serves 239.1.1.1, not 239.192.255.4");
    EXPECT_EQ(Run({"-g", "239.1.1.1"}), 0) << out;
}

TEST_F(Doctor, FindsAnInterfaceWithoutAddress) {
    ASSERT_EQ(device.Run("ip addr flush dev eth0"), 0);
    StartControl();
    StartDaemon();
    ASSERT_TRUE(AwaitOut("request failed err=63"));
    ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 1"));
    EXPECT_EQ(Run({}), 1);
    EXPECT_NE(out.find("FAIL  interface  eth0 has no address"), std::string::npos) << out;
    EXPECT_NE(out.find("FAIL  group"), std::string::npos) << out;
}

TEST_F(Doctor, FindsACutCable) {
    StartWell();
    ASSERT_EQ(studio.Run("ip link set eth0 down"), 0);
    ExpectTroubles({"link", "remote"}, "eth0 has no carrier");
}

TEST_F(Doctor, FindsWhoHasThePort) {
    const Host::Scope on(device);
    const int other = bound_socket(SOCK_DGRAM, "0.0.0.0", 2060);
    StartControl();
    StartDaemon();
    ASSERT_TRUE(AwaitErr("server at port 2060 open failed"));
    ASSERT_TRUE(Await([this] { return !daemon->IsRunning(); }));
    ExpectTroubles({"daemon", "port 2060"}, "not running");
    EXPECT_NE(out.find("process " + std::to_string(getpid())), std::string::npos) << out;
    close(other);
}

// The command that it names is the remedy.
TEST_F(Doctor, MendsRoutesAndFirewalls) {
    const struct {
        const char* provoke;
        std::vector<std::string> checks;
        const char* reason;
    } rows[] = {
        {"ip route del 224.0.0.0/4", {"route", "read"}, "there is none to 239.192.255.4"},
        {"ip route del 239.192.255.4", {"route", "read"}, "there is none to 239.192.255.4"},
        {"nft add rule inet filter input udp dport 2060 drop",
         {"firewall"},
         "drops what arrives on port 2060"},
        {"nft add rule inet filter input udp dport 2055 drop",
         {"firewall"},
         "drops what arrives on port 2055"},
        {"nft add rule inet filter output udp dport 2055 drop",
         {"firewall"},
         "drops what this host sends to port 2055"},
    };
    ASSERT_EQ(device.Run("nft 'add table inet filter; "
                         "add chain inet filter input { type filter hook input priority 0; }; "
                         "add chain inet filter output { type filter hook output priority 0; }'"),
              0);
    StartWell();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.provoke);
        ASSERT_EQ(device.Run(row.provoke), 0);
        ExpectTroubles(row.checks, row.reason);
        EXPECT_EQ(device.Run(mend.substr(0, mend.find(", or ")).c_str()), 0) << mend;
        EXPECT_EQ(Run({}), 0) << out;
        // From now on, TQRD names the address that the daemon has from eth0: that changes nothing.
        ASSERT_EQ(tqrd.server.Apply("SET NIC_IPADDR=10.77.0.1"), "");
    }
}

TEST_F(Doctor, FindsWrongSettings) {
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 3 SRCA=none"), "");
    StartWell();
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 4 SRCA=1:300"), "");
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 5 SRC=1:3"), "");
    ExpectTroubles({"channel"},
                   "output 4 with the source 1:300 is driven by writes on the bus to 1:44");
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 4 SRCA=10.77.0.2/0"), "");
    ExpectTroubles({"channel"}, "by input 256 of 10.77.0.2:93");
    ASSERT_EQ(tqrd.server.Apply("CFG GPO 4 SRCA=none"), "");
    ASSERT_EQ(tqrd.server.Apply("SET GPIO_PROBLEMS=\"input 1.1: no chip\""), "");
    ExpectTroubles({"pins"}, "TQRD has pins that don't work: input 1.1: no chip");
    ASSERT_EQ(tqrd.server.Apply("SET GPIO_PROBLEMS=none"), "");
    ASSERT_EQ(tqrd.server.Apply("SET NIC_IPADDR=10.9.9.9"), "");
    ASSERT_TRUE(AwaitOut("iface changed"));
    ExpectTroubles({"interface"}, "TQRD names 10.9.9.9, which no interface has");
    EXPECT_NE(out.find("is joined on eth0"), std::string::npos) << out;
    EXPECT_NE(out.find("ignores the line CFG GPO 5 SRC=1:3"), std::string::npos) << out;
}

// The system completes connections for a server that hangs.
TEST_F(Doctor, FindsWhatHangs) {
    StartControl();
    {
        const Host::Scope on(studio);
        listen(bound_socket(SOCK_STREAM, STUDIO_ADDRESS, 93), 8);
    }
    StartDaemon();
    ASSERT_TRUE(AwaitHeard(tqrd, "GPO 2 HHHHH"));
    ExpectTroubles({"remote"}, "drives output 2, hangs");
    daemon->Signal(SIGSTOP);
    ExpectTroubles({"daemon", "remote", "read"}, "is stopped");
    EXPECT_EQ(mend, "kill -CONT " + std::to_string(daemon->Pid()));
    daemon->Signal(SIGCONT);

    tqrd.server.Close();
    ASSERT_TRUE(AwaitErr("Connection to TQRD lost"));
    {
        const Host::Scope on(device);
        listen(bound_socket(SOCK_STREAM, "127.0.0.1", 93, SO_REUSEADDR, 1), 8);
    }
    ASSERT_TRUE(AwaitErr("Connection to TQRD reopened"));
    ExpectTroubles({"TQRD"}, "hangs, so nothing is served: it accepts no connections");
}

// A port that is bound to the group takes nothing from the daemon.
TEST_F(Doctor, KnowsWhoMayShareThePort) {
    StartWell();
    const Host::Scope on(device);
    Process watch({ORVEXCTL_PROGRAM, "watch", "-C", "-v"});
    ASSERT_TRUE(Await([&watch] {
        watch.Pump();
        return watch.Err().find("port 2060") != std::string::npos;
    }));
    EXPECT_EQ(Run({}), 0) << out;
    // In a container it sees the port, but not who has it.
    EXPECT_EQ(Run({}, "doctor", {"unshare", "-pf", "--mount-proc"}), 0) << out;
    EXPECT_NE(out.find("note  daemon     not visible"), std::string::npos) << out;
    daemon.reset();
    ExpectTroubles({"daemon"}, "not running");
}

TEST_F(Doctor, KnowsTheServicesBesideTheDaemon) {
    ASSERT_EQ(device.Run("mkdir -p /run/systemd/system && mount -t tmpfs etc /etc/systemd && "
                         "mkdir -p /etc/systemd/system/multi-user.target.wants && "
                         "cd /etc/systemd/system/multi-user.target.wants && "
                         "ln -s none orvex-board.service && ln -s none orvex-mqtt.service"),
              0);
    StartWell();
    ExpectTroubles({"program"}, "orvex-board is enabled, but not running");
    const pid_t board = fork();
    if (board == 0) {
        const Host::Scope on(device);
        prctl(PR_SET_NAME, "orvex-board");
        pause();
        _exit(0);
    }
    ASSERT_TRUE(Await([this] { return Run({}) == 0; })) << out;
    kill(board, SIGSTOP);
    ExpectTroubles({"program"}, "is stopped");
    kill(board, SIGKILL);
    waitpid(board, nullptr, 0);
}

// The other one is on another host, also for those who may not look at it.
TEST_F(Doctor, FindsTwoDevicesWithOneAddress) {
    StartWell();
    StartOther();
    ExpectTroubles({"address"}, "10.77.0.2 answers for 1:2 too");
    EXPECT_EQ(Run({}, "doctor", {"setpriv", "--bounding-set", "-all", "--inh-caps", "-all"}), 1);
    EXPECT_EQ(out.find("FAIL"), std::string::npos) << out;
}

TEST_F(Doctor, FindsForgottenSubscriptions) {
    StartWell();
    tqrd.server.Close();
    ASSERT_TRUE(AwaitErr("Connection to TQRD lost"));
    StartControl();
    ASSERT_TRUE(AwaitErr("Connection to TQRD reopened"));
    ASSERT_TRUE(AwaitHeard(tqrd, "CFG GPO", 2));
    ExpectTroubles({"inputs"}, "not subscribed at TQRD: it was restarted");

    // Later writes hide that little was sent, but then a state differs.
    ASSERT_EQ(tqrd.server.Apply("GPI 1 L"), "");
    const auto set = [this] {
        const Host::Scope on(studio);
        Process ctl({ORVEXCTL_PROGRAM, "set", "1:2:out1=L"});
        Await([&ctl] {
            ctl.Pump();
            return !ctl.IsRunning();
        });
    };
    set();
    ASSERT_TRUE(AwaitHeard(tqrd, "GPO 1 Lxxxx"));
    ExpectTroubles({"inputs"}, "differs from that of TQRD, so the subscription is lost: input 1");
}

}  // namespace
