// Half a million events of all kinds while peers come and go: everything that had to come out is
// counted, and the daemon is at the end what it was after the first tenth.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "tests/e2e/BusPeer.h"
#include "tests/e2e/Site.h"

namespace {

using Lines = std::vector<std::string>;

// The allocator takes a page now and then; a byte lost an event would be 440 KiB at the end.
const long SLACK_KIB = 64;

const int ROUNDS = 5000;
const int PER_ROUND = 25;  // of each of the four kinds: what the buffers of the sockets hold

class Soak : public Site {
protected:
    void StartAll() {
        for (const char* line :
             {"CFG GPO 1 SRCA=10.77.0.2/1", "CFG GPO 2 SRCA=10.77.0.2/1", "CFG GPO 3 SRCA=0x30"}) {
            ASSERT_EQ(tqrd.server.Apply(line), "");
        }
        StartControl();
        StartRemote();
        peer = std::make_unique<BusPeer>(studio, STUDIO_ADDRESS);
        StartDaemon({}, {"ASAN_OPTIONS=quarantine_size_mb=1"});
        ASSERT_TRUE(Await([&] { return !daemon->IsRunning(); })) << "it detaches";
        ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1", 2));
        ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 3"));
        std::ifstream("/run/orvex.pid") >> pid;
        ASSERT_GT(pid, 1);
        Linger(100);
        peer->Reports();
        tqrd.heard.clear();
    }

    void TearDown() override {
        if (pid > 1) {
            kill(pid, SIGTERM);
        }
        Site::TearDown();
    }

    long ResidentKiB() const {
        std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
        long total = 0;
        long resident = 0;
        statm >> total >> resident;
        return resident * 4;
    }

    // 0 when they can't be listed.
    long Descriptors() const {
        std::error_code error;
        const std::filesystem::directory_iterator list("/proc/" + std::to_string(pid) + "/fd",
                                                       error);
        return std::distance(begin(list), end(list));
    }

    // One batch of each kind of event, and all that must come of it.
    void Round() {
        std::string states;
        std::string inputs;
        for (int i = 0; i < PER_ROUND; ++i) {
            states += i % 2 == 0 ? "GPI 1 LHLHL\n" : "GPI 1 HLHLH\n";
            inputs += i % 2 == 0 ? "GPI 3 LLLLL\n" : "GPI 3 HHHHH\n";
        }
        remote.server.SendRaw(states);
        for (int i = 0; i < PER_ROUND; ++i) {
            peer->Send(peer->Packet('\0', Hex("57524E49 0001 00003008 07 40")), DEVICE_ADDRESS);
            peer->Send(peer->Packet('M', Hex("52454144 0001 0000300D 07 00")), DEVICE_ADDRESS);
        }
        tqrd.server.SendRaw(inputs);
        // Mirrored to two channels, and a line a write.
        const size_t lines = 3 * PER_ROUND;
        // A reply a read and a report an input, all sent twice; an acknowledgement a read.
        const size_t sent = 4 * PER_ROUND;
        size_t reports = 0;
        size_t answers = 0;
        ASSERT_TRUE(Await([&] {
            reports += peer->Reports().size();
            answers += peer->Answers().size();
            return tqrd.heard.size() >= lines && reports >= sent && answers >= PER_ROUND;
        })) << tqrd.heard.size()
            << " lines, " << reports << " reports, " << answers << " answers";
        EXPECT_EQ(tqrd.Count("GPO 3 Lxxxx"), PER_ROUND);
        EXPECT_EQ(tqrd.Count("GPO 1 LHLHL") + tqrd.Count("GPO 2 HLHLH"), PER_ROUND);
        EXPECT_EQ(reports, sent);
        EXPECT_EQ(answers, static_cast<size_t>(PER_ROUND));
        tqrd.heard.clear();
    }

    // A remote connection is closed and opened again, by the configuration and by the server's end.
    void Reconfigure() {
        remote.heard.clear();
        remote.server.DropAll();
        for (const char* line : {"CFG GPO 1 SRCA=none", "CFG GPO 2 SRCA=none",
                                 "CFG GPO 1 SRCA=10.77.0.2/1", "CFG GPO 2 SRCA=10.77.0.2/1"}) {
            tqrd.server.Apply(line);
        }
        ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1", 2));
        ASSERT_TRUE(AwaitHeard(tqrd, "GPO 2 HHHHH", 3));
        Linger(5);
        tqrd.heard.clear();
    }

    std::unique_ptr<BusPeer> peer;
    pid_t pid = 0;
};

TEST_F(Soak, HalfAMillionEvents) {
    StartAll();
    long resident = 0;
    long descriptors = 0;
    for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
        if (round == ROUNDS / 10) {
            resident = ResidentKiB();
            descriptors = Descriptors();
        }
        Round();
        if (round % 50 == 49) {
            Reconfigure();
        }
    }
    EXPECT_GT(resident, 0);
    EXPECT_GT(descriptors, 0);
    EXPECT_LE(ResidentKiB(), resident + SLACK_KIB);
    EXPECT_EQ(Descriptors(), descriptors);
    printf("%d events, %ld KiB resident, %ld descriptors\n", ROUNDS * PER_ROUND * 4, ResidentKiB(),
           Descriptors());
}

}  // namespace
