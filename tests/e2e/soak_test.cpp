// Half a million events of all kinds while peers come and go: everything that had to come out is
// counted, and the daemon is at the end what it was after the first tenth.

#include "tests/e2e/Wired.h"

namespace {

using Lines = std::vector<std::string>;

const int ROUNDS = 5000;
const int PER_ROUND = 25;  // of each of the four kinds: what the buffers of the sockets hold

class Soak : public Wired {
protected:
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
            SendWrite();
            SendRead();
        }
        tqrd.server.SendRaw(inputs);
        // Mirrored to two channels, and a line a write.
        const size_t lines = size_t{3} * PER_ROUND;
        // A reply a read and a report an input, all sent twice; an acknowledgement a read.
        const size_t sent = size_t{4} * PER_ROUND;
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
    ExpectMemory(resident, ROUNDS * PER_ROUND * 4 * 9 / 10);
    EXPECT_EQ(Descriptors(), descriptors);
    printf("%d events, %ld KiB resident, %ld descriptors\n", ROUNDS * PER_ROUND * 4, ResidentKiB(),
           Descriptors());
}

}  // namespace
