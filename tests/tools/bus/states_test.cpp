// The states of pins, and their names.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "tools/bus/Names.h"
#include "tools/bus/PinStates.h"

namespace {

const uint32_t INPUT = 0x1020D;
const uint32_t OUTPUT = 0x10208;
const uint32_t DEVICE = 0x0A4D0001;
const uint32_t STUDIO = 0x0A4D0002;

class PinStatesTest : public testing::Test {
protected:
    // Processes a "reply", "report" or "write" about a pin at that time.
    std::vector<PinChange> Say(int ms, const std::string& kind, uint32_t tag, uint8_t value,
                               uint32_t host = DEVICE) {
        Traffic traffic;
        traffic.time = ms / 1000.0;
        traffic.message.SetId(kind == "write" ? 0x57524E49 : 0x494E4449);
        if (kind == "reply") {
            traffic.message.SetDword(0xFFFFFFFE, 7);
        }
        traffic.message.SetByte(tag, value);
        traffic.message.SetByte(0xFFFFFFFD, 2);
        traffic.message.SetRoutingInfo1(host, 0, 0, 0);
        return states.Take(traffic, At(ms));
    }

    TimePoint At(int ms) const { return m_start + std::chrono::milliseconds(ms); }

    // Whether the pin is read in that time.
    int Asked(int from, int to) {
        std::vector<uint32_t> ask;
        for (int ms = from; ms <= to; ms += 10) {
            forgotten += static_cast<int>(states.Tend(At(ms), ask).size());
        }
        return static_cast<int>(ask.size());
    }

    void Expect(PinStatus status, std::optional<Level> level, bool denied = false) {
        const PinState* const state = states.Find(OUTPUT);
        ASSERT_NE(state, nullptr);
        EXPECT_EQ(state->status, status);
        EXPECT_EQ(state->level, level);
        EXPECT_EQ(state->denied, denied);
    }

    PinStates states{3, 2};
    int forgotten = 0;

private:
    const TimePoint m_start = Now();
};

TEST_F(PinStatesTest, AcceptsWhatDevicesTell) {
    const std::vector<PinChange> first = Say(0, "reply", INPUT, 0);
    ASSERT_EQ(first.size(), 1U) << "no pin of the reply's other items";
    EXPECT_FALSE(first[0].before);
    EXPECT_FALSE(states.Find(INPUT)->seen_changing);
    EXPECT_TRUE(Say(1, "reply", INPUT, 0).empty()) << "the second copy";
    const std::vector<PinChange> second = Say(5, "report", INPUT, 1);
    ASSERT_EQ(second.size(), 1U);
    EXPECT_EQ(second[0].before, Level::High);
    EXPECT_EQ(second[0].after, Level::Low);
    EXPECT_EQ(second[0].host, DEVICE);
    EXPECT_TRUE(states.Find(INPUT)->seen_changing);
    EXPECT_EQ(states.Find(INPUT)->since->time, 0.005);
    EXPECT_TRUE(Say(6, "write", INPUT, 0).empty()) << "inputs are not set";
    EXPECT_EQ(states.NextTime(), TimePoint::max());
}

TEST_F(PinStatesTest, KeepsAWriteUnconfirmed) {
    Say(0, "reply", OUTPUT, 1);  // the device follows this pin
    Say(1, "reply", OUTPUT, 0);
    EXPECT_EQ(Say(10, "write", OUTPUT, 0x40, STUDIO)[0].host, STUDIO);
    Expect(PinStatus::Written, Level::Low);
    EXPECT_TRUE(Say(11, "reply", OUTPUT, 0).empty()) << "older than the write, perhaps";
    Expect(PinStatus::Written, Level::Low);
    EXPECT_EQ(Asked(20, 140), 1);
    EXPECT_EQ(Say(141, "reply", OUTPUT, 1).size(), 1U);
    Expect(PinStatus::Told, Level::Low);
    EXPECT_EQ(Asked(150, 3000), 0);

    Say(3000, "write", OUTPUT, 0x00);
    EXPECT_EQ(Asked(3000, 6000), 3);
    EXPECT_EQ(Say(6000, "reply", OUTPUT, 1)[0].before, Level::High) << "it was not carried out";
    Expect(PinStatus::Told, Level::Low);
}

TEST_F(PinStatesTest, TreatsHighAsNoProof) {
    Say(0, "reply", OUTPUT, 0);
    Say(10, "write", OUTPUT, 0x40);
    EXPECT_EQ(Asked(20, 2000), 3);
    EXPECT_TRUE(Say(2000, "reply", OUTPUT, 0)[0].denied);
    Expect(PinStatus::Written, Level::Low, true);
    EXPECT_TRUE(Say(2001, "reply", OUTPUT, 0).empty());
    Say(2010, "report", OUTPUT, 0);
    Expect(PinStatus::Told, Level::High);  // a report always counts
}

TEST_F(PinStatesTest, ForgetsAWriteAfterItsDuration) {
    Say(0, "reply", OUTPUT, 0);
    Say(10, "write", OUTPUT, 0x42);  // low for 500 ms
    EXPECT_EQ(states.Find(OUTPUT)->until, At(510));
    Say(100, "reply", OUTPUT, 1);
    Expect(PinStatus::Told, Level::Low);
    EXPECT_EQ(Asked(110, 500), 0);
    EXPECT_EQ(Asked(510, 640), 1);
    Expect(PinStatus::Written, Level::Low);
    Say(650, "reply", OUTPUT, 0);
    Expect(PinStatus::Told, Level::High);
    EXPECT_EQ(Asked(650, 3000), 0);

    Say(3000, "write", OUTPUT, 0x41);
    EXPECT_EQ(Asked(3000, 3240), 1);
    EXPECT_EQ(Asked(3250, 9000), 3);
    EXPECT_EQ(forgotten, 1);
    Expect(PinStatus::Unknown, std::nullopt);
    EXPECT_EQ(states.NextTime(), TimePoint::max());
}

TEST_F(PinStatesTest, BoundsPinsButKeepsWantedOnes) {
    states.Want(OUTPUT);
    for (uint32_t tag = 0; tag < 10; ++tag) {
        Say(0, "write", tag << 8 | 8, 0x40);
    }
    EXPECT_EQ(states.Count(), 3U) << "a host has its share";
    EXPECT_EQ(states.PassedOver(), 8U);
    states.Want(0x008);  // no longer of that share
    Say(0, "write", 0x1008, 0x40);
    Say(0, "write", 0x1108, 0x40, STUDIO);
    Say(0, "write", 0x1208, 0x40, STUDIO);
    EXPECT_EQ(states.Count(), 5U);
    EXPECT_EQ(Say(1, "report", OUTPUT, 1).size(), 1U);
}

TEST(Names, AreLookedUpBothWays) {
    const std::string file = testing::TempDir() + "names-looked-up";
    std::ofstream(file) << "# names\n\n  1:2 studio1 \"Studio \\\"1\\\" \\\\\"\r\n"
                        << "0x102:out3\tstudio1.on-air # no text\n"
                        << "1:2:8 k\xC3\xBC"
                        << "che.licht \"\"\n";
    const Names names = Names::Read(file);
    remove(file.c_str());
    ASSERT_EQ(names.All().size(), 3U);
    EXPECT_EQ(names.OfAddress(258)->text, "Studio \"1\" \\");
    EXPECT_EQ(names.NameOf(0x10206), "studio1.on-air");
    EXPECT_EQ(names.NameOf(0x1020D), "studio1:in1");
    EXPECT_EQ(names.NameOf(0x1030D), "");
    EXPECT_EQ(names.GroupOf(OUTPUT),
              "k\xC3\xBC"
              "che");
    EXPECT_EQ(names.GroupOf(0x1020D), "studio1");
    EXPECT_EQ(names.ParsePin("studio1:c6"), names.ParsePin("studio1.on-air"));
    EXPECT_EQ(names.Parse("studio1").Tags().size(), 10U);
    EXPECT_EQ(names.ParsePin("7:in1"), 0x70DU);
    EXPECT_THROW(names.ParsePin("studio1"), std::invalid_argument);
    EXPECT_THROW(names.Parse("studio1.on-air:in1"), std::invalid_argument);
}

TEST(Names, RefuseWithFileAndLine) {
    const struct {
        const char* line;
        const char* reason;
    } cases[] = {
        {"1:2", "no name"},
        {"1:300 a", "the second number of an address is 0 to 255: 1:300"},
        {"1:2 3a", "a name begins with a letter: 3a"},
        {"1:2 a:b", "a name has letters, digits, '.', '_' and '-': a:b"},
        {"1:2 out3", "every address has a pin of this name: out3"},
        {"1:2 a\xFF", "not UTF-8"},
        {"1:2 a \"\xC2\x9B\"", "a control character"},
        {"1:2 a text", "the text is not in double quotes"},
        {"1:2 a \"x", "the text has no closing quote"},
        {"1:2 a \"x\" y", "more after the text"},
        {"1:3 first", "the name first is given twice"},
        {"9 other", "it already has a name: first"},
    };
    const std::string file = testing::TempDir() + "names-refused";
    for (const auto& c : cases) {
        std::ofstream(file) << "9 first\n" << c.line << "\n";
        try {
            Names::Read(file);
            ADD_FAILURE() << c.line;
        } catch (const NamesError& error) {
            EXPECT_EQ(error.what(), file + ":2: " + c.reason);
        }
    }
    remove(file.c_str());
}

}  // namespace
