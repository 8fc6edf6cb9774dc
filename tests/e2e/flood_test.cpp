// The cost of floods from each side, and of idling; and that the daemon serves at once afterwards.

#include "tests/e2e/Wired.h"

namespace {

const int EVENTS = 50000;
const int SENDERS = 10000;
const int BURST = 50;          // datagrams that fit the daemon's receive buffer
const long SENDER_BYTES = 80;  // memory that a sender may cost
const long EVENT_US = 200;     // processor time that an event may cost, even emulated

class Flood : public Wired {
protected:
    void SetUp() override {
        Wired::SetUp();
        if (!IsSkipped()) {
            StartAll();
            Begin();
        }
    }

    void Begin() {
        EXPECT_TRUE(Works());
        m_resident = ResidentKiB();
        m_cpu = CpuMs();
        m_descriptors = Descriptors();
    }

    // Expects that of that many events nothing is left but the permitted memory, and that the
    // daemon is idle.
    void ExpectUnharmed(long events, long event_bytes = 0) {
        EXPECT_TRUE(Works());
        const long spent = CpuMs() - m_cpu;
        printf("%ld events: %ld ms\n", events, spent);
        ExpectMemory(m_resident, events, event_bytes);
        EXPECT_LE(spent, 100 + events * EVENT_US / 1000);
        EXPECT_EQ(Descriptors(), m_descriptors);
        ExpectQuiet(300, 1);
    }

    void ExpectQuiet(int ms, long wake_ups) {
        const long cpu = CpuMs();
        const long waits = WakeUps();
        Linger(ms);
        EXPECT_LE(CpuMs() - cpu, 10);
        EXPECT_LE(WakeUps() - waits, wake_ups);
    }

    // Calls send(i) for each event, with pauses so that the daemon keeps up.
    template <class Send>
    void Repeat(int events, Send send) {
        for (int i = 0; i < events; ++i) {
            send(i);
            if (i % BURST == 0) {
                Linger(1);
            }
        }
    }

    long m_resident = 0;
    long m_cpu = 0;
    long m_descriptors = 0;
};

// The first flood makes the list of senders grow. The second comes from other senders, which reuse
// the entries of the first: those have expired.
TEST_F(Flood, OfSenders) {
    const auto flood = [this](int first_port) {
        tqrd.heard.clear();
        for (int done = 0; done < SENDERS; done += BURST) {
            for (int i = 0; i < BURST; ++i) {
                peer->SendFrom(static_cast<unsigned short>(first_port + done + i),
                               peer->Packet('\0', Hex("57524E49 0001 00003008 07 40")),
                               DEVICE_ADDRESS);
            }
            ASSERT_TRUE(AwaitHeard(tqrd, "GPO 3 Lxxxx", done + BURST));
        }
    };
    flood(10000);
    ExpectUnharmed(SENDERS, SENDER_BYTES);
    const int AGE_MS = 10000;
    Linger(AGE_MS + 1000);
    Begin();
    flood(20000);  // below the ports that the system chooses
    ExpectUnharmed(SENDERS);
}

// Lines without an end, lines in pieces, invalid lines.
TEST_F(Flood, OfLines) {
    const std::string half = "GPI 1 " + std::string(1900, 'x');
    const auto send = [&](int i) {
        const bool ends = i % 5 == 4;
        remote.server.SendRaw(ends ? "\nGPI 2 LLLLL\nGPI 1" : "LLLLL");
        tqrd.server.SendRaw(ends ? " LLLLL\nGPO 99 LLLLL\nCFG GPO 7 NAME=\"x\nG" : "PI 3\nG");
    };
    Repeat(EVENTS / 10, send);
    remote.server.SendRaw("\n");
    tqrd.server.SendRaw("\n");
    Begin();
    Repeat(EVENTS, send);
    remote.server.SendRaw("\n" + half);
    tqrd.server.SendRaw("\n" + half);
    EXPECT_TRUE(AnswersRead());
    remote.server.SendRaw("\n");
    tqrd.server.SendRaw("\n");
    ExpectUnharmed(EVENTS);
}

TEST_F(Flood, OfNothing) {
    const long waits = WakeUps();
    ExpectQuiet(28000, 2);
    EXPECT_GE(WakeUps() - waits, 1) << "for the sweep of remote servers";
}

}  // namespace
