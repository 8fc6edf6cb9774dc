// Half a million events of all kinds, while peers connect and disconnect. Every result is counted;
// at the end, the daemon uses no more than after the first tenth. scripts/soak runs it with any
// number of events.

#include <cstdio>
#include <cstdlib>
#include <random>

#include "tests/e2e/Wired.h"

namespace {

using Lines = std::vector<std::string>;

const int PER_ROUND = 25;  // events of each of the four kinds: as many as fit the socket buffers
const int ROUND_EVENTS = 4 * PER_ROUND;

// The requested number of events; 0 for the default.
long events_wanted() {
    const char* const text = getenv("ORVEX_SOAK_EVENTS");
    return text == nullptr ? 0 : atol(text);
}

void show_progress(long done, long all) {
    const int width = 50;
    const std::string bar(static_cast<size_t>(done * width / all), '#');
    fprintf(stderr, "\r[%-*s] %3ld %%, %ld events%s", width, bar.c_str(), done * 100 / all,
            done * ROUND_EVENTS, done == all ? "\n" : "");
}

class Soak : public Wired {
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
        Linger(5);
        peer->Answers();
        peer->Reports();
        tqrd.heard.clear();
    }

    std::minstd_rand m_random;  // default seed: the same numbers in every run

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
};

TEST_F(Soak, HalfAMillionEvents) {
    const long wanted = events_wanted();
    const long rounds = wanted > 0 ? std::max(10L, wanted / ROUND_EVENTS) : 5000;
    StartAll();
    long resident = 0;
    long descriptors = 0;
    for (long round = 0; round < rounds && !HasFailure(); ++round) {
        if (round == rounds / 10) {
            resident = ResidentKiB();
            descriptors = Descriptors();
        }
        Round();
        if (round % 50 == 49) {
            Reconfigure();
            Disturb();
        }
        if (wanted > 0 && (round % 50 == 49 || round + 1 == rounds)) {
            show_progress(round + 1, rounds);
        }
    }
    EXPECT_GT(resident, 0);
    EXPECT_GT(descriptors, 0);
    const long events = rounds * ROUND_EVENTS;
    ExpectMemory(resident, events * 9 / 10);
    EXPECT_EQ(Descriptors(), descriptors);
    printf(
        "%ld events, %ld reconfigurations with lost peers, %ld hostile datagrams\n"
        "%ld KiB resident, %ld after the first tenth; %ld descriptors; %ld ms of processor time\n",
        events, rounds / 50, rounds / 50 * 100, ResidentKiB(), resident, Descriptors(), CpuMs());
}

}  // namespace
