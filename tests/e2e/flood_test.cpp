// The cost of floods from each side, of idling and of half a million events; and that the daemon
// serves at once afterwards.

#include <cstdio>
#include <cstdlib>
#include <random>

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
        EXPECT_GT(m_resident, 0);
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

const int PER_ROUND = 25;  // events of each of the four kinds: as many as fit the socket buffers
const int ROUND_EVENTS = 4 * PER_ROUND;

class Soak : public Flood {
protected:
    // Sends one batch of each kind of event, and expects all their results.
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
        // Two lines for each mirrored one, and one for each write.
        const size_t lines = size_t{3} * PER_ROUND;
        // A reply for each read and a report for each input, all sent twice; an acknowledgement for
        // each read.
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

    // Sends invalid datagrams from other ports: truncated, altered and random ones.
    void Disturb() {
        const std::string good =
            peer->Packet('M', Hex("52454144 0002 0000300D 07 00 0000300C 02 0001 78"));
        for (unsigned short i = 0; i < 100; ++i) {
            std::string bytes = good.substr(0, m_random() % (good.size() + 1));
            for (char& byte : bytes) {
                byte = m_random() % 8 == 0 ? static_cast<char>(m_random()) : byte;
            }
            peer->SendFrom(static_cast<unsigned short>(20000 + i), bytes, DEVICE_ADDRESS);
        }
        EXPECT_TRUE(Works());
        DropReceived();
    }

    void DropReceived() {
        Linger(5);
        peer->Answers();
        peer->Reports();
        tqrd.heard.clear();
    }

    // Closes and reopens a remote connection: by the server, and by the configuration.
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

    std::minstd_rand m_random;  // default seed: the same numbers in every run
};

// Half a million events of all kinds, while peers connect and disconnect. Every result is counted;
// at the end, the daemon uses no more than after the first tenth. scripts/test --soak runs it with
// any number of events.
TEST_F(Soak, HalfAMillionEvents) {
    const char* const text = getenv("ORVEX_SOAK_EVENTS");
    const long wanted = text != nullptr ? atol(text) : 0;
    const long rounds = wanted > 0 ? std::max(10L, wanted / ROUND_EVENTS) : 5000;
    DropReceived();
    for (long round = 0; round < rounds && !HasFailure(); ++round) {
        if (round == rounds / 10) {
            Begin();
            DropReceived();
        }
        Round();
        if (round % 50 == 49) {
            Reconfigure();
            Disturb();
        }
        if (wanted > 0 && (round % 50 == 49 || round + 1 == rounds)) {
            fprintf(stderr, "\r%3ld %% ", (round + 1) * 100 / rounds);
        }
    }
    const long events = rounds * ROUND_EVENTS;
    ExpectMemory(m_resident, events * 9 / 10);
    EXPECT_EQ(Descriptors(), m_descriptors);
    printf(
        "%ld events, %ld reconfigurations with lost peers, %ld hostile datagrams\n"
        "%ld KiB resident, %ld after the first tenth; %ld descriptors; %ld ms of processor time\n",
        events, rounds / 50, rounds / 50 * 100, ResidentKiB(), m_resident, Descriptors(), CpuMs());
}

}  // namespace
