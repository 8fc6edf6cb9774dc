// Pins on the command line, and the filter for repeats.

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "tools/bus/Names.h"
#include "tools/bus/PinName.h"
#include "tools/bus/PinWrite.h"
#include "tools/bus/RepeatFilter.h"

namespace {

const uint32_t NO_PIN = 0xFFFFFFFF;

TEST(PinName, ReadsAddressesAndPins) {
    const struct {
        const char* text;
        uint32_t address;
        uint32_t tag;  // NO_PIN: an address alone
        const char* canonical;
    } cases[] = {
        {"258", 258, NO_PIN, "1:2"},
        {"0x102", 258, NO_PIN, "1:2"},
        {"010", 8, NO_PIN, "8"},
        {"0x1:010", 264, NO_PIN, "1:8"},
        {"1:255", 511, NO_PIN, "1:255"},
        {"258:8", 66056, NO_PIN, "258:8"},
        {"0xFFFFFF", 0xFFFFFF, NO_PIN, "65535:255"},
        {"258:out1", 258, 0x10208, "1:2:out1"},
        {"1:2:OUT5", 258, 0x10204, "1:2:out5"},
        {"1:2:8", 258, 0x10208, "1:2:out1"},
        {"258:c9", 258, 0x10209, "1:2:in5"},
        {"1:2:c0x0D", 258, 0x1020D, "1:2:in1"},
        {"1:2:20", 258, 0x10214, "1:2:c20"},
        {"7:c255", 7, 0x7FF, "7:c255"},
    };
    for (const auto& c : cases) {
        const PinRef pins = ParsePinRef(c.text);
        EXPECT_EQ(pins.address, c.address) << c.text;
        EXPECT_EQ(pins.circuit.has_value(), c.tag != NO_PIN) << c.text;
        const std::vector<uint32_t> tags = pins.Tags();
        if (c.tag == NO_PIN) {
            EXPECT_EQ(tags.size(), 10U) << c.text;
            EXPECT_EQ(tags.front(), c.address << 8 | 13) << c.text;
            EXPECT_EQ(tags.back(), c.address << 8 | 4) << c.text;
            EXPECT_EQ(AddressText(pins.address), c.canonical);
        } else {
            EXPECT_EQ(tags, std::vector<uint32_t>{c.tag}) << c.text;
            EXPECT_EQ(PinText(c.tag), c.canonical);
        }
        EXPECT_EQ(ParsePinRef(c.canonical).Tags(), tags) << "what is printed can be typed";
    }
}

TEST(PinName, RefusesTheRest) {
    for (const char* text : {"",      ":",         "1:",         ":1",    "1:2:",
                             "1::2",  "1:2:3:4",   "1:2:out1:8", "-1",    "+1",
                             " 1",    "1 ",        "x",          "out1",  "1:out6",
                             "1:in0", "1:c256",    "1:2:256",    "1:c",   "08",
                             "0x",    "0x1000000", "0x10000:1",  "1:256", "99999999999999999999",
                             "1.2"}) {
        EXPECT_THROW(ParsePinRef(text), std::invalid_argument) << text;
    }
    EXPECT_THROW(ParsePin("258:8"), std::invalid_argument) << "an address is no pin";
}

TEST(PinWrite, RoundsToWhatTheByteCarries) {
    const struct {
        const char* text;
        int byte;
        unsigned int duration;
    } cases[] = {
        {"1:2:out1=L", 0x40, 0},
        {"1:2:out1=h", 0x00, 0},
        {"1:2:out1=L,1", 0xC1, 10},
        {"1:2:out1=H,15", 0x82, 20},
        {"1:2:out1=L,405", 0x42, 500},
        {"1:2:out1=L,310", 0xDF, 310},
        {"1:2:out1=H,1000000000", 0x1F, 7750},
    };
    for (const auto& c : cases) {
        const PinWrite write = ParsePinWrite(c.text, Names());
        EXPECT_EQ(write.tag, 0x10208U);
        EXPECT_EQ(write.value.Byte(), c.byte) << c.text;
        EXPECT_EQ(write.value.Duration(), c.duration) << c.text;
    }
    // No duration that the byte can carry is nearer than the chosen one.
    for (unsigned long asked = 1; asked < 9000; ++asked) {
        const long chosen = static_cast<long>(WriteValue(Level::Low, asked).Duration());
        for (int byte = 0; byte < 256; ++byte) {
            const long other = static_cast<long>(WriteValue(static_cast<uint8_t>(byte)).Duration());
            ASSERT_TRUE(other == 0 || labs(other - static_cast<long>(asked)) >=
                                          labs(chosen - static_cast<long>(asked)))
                << asked << ": " << chosen << " rather than " << other;
        }
    }
    for (const char* text : {"1:2:out1", "1:2:out1=", "1:2:out1=x", "1:2:out1=LL", "1:2:out1=1",
                             "1:2:out1=L,", "1:2:out1=L,0", "1:2:out1=L,-1", "1:2:out1=L,1s",
                             "1:2:out1=L,5,5", "1:2:out1=L,1000000001", "1:2=L", "=L"}) {
        EXPECT_THROW(ParsePinWrite(text, Names()), std::invalid_argument) << text;
    }
}

// A host that sends each message as two packets, of which some get lost.
class Twice {
public:
    // The levels that are left after the filter. lost: whether a packet gets lost.
    std::string Toggle(int count, int every_ms, const std::function<bool(int packet)>& lost) {
        std::string left;
        for (int packet = 0; packet < 2 * count; ++packet) {
            const bool low = packet / 2 % 2 == 0;
            if (!lost(packet) && !IsRepeat(m_tid + packet, low ? 1 : 0, packet / 2 * every_ms)) {
                left += low ? 'L' : 'H';
            }
        }
        return left;
    }

    bool IsRepeat(long tid, uint8_t value, int ms, uint32_t host = 1) {
        Traffic traffic;
        traffic.tid = static_cast<uint32_t>(tid);
        traffic.message.SetRoutingInfo1(host, 0, 0, 0);
        traffic.message.SetByte(0x1020D, value);
        return m_filter.IsRepeat(traffic, m_start + std::chrono::milliseconds(ms));
    }

private:
    const TimePoint m_start = Now();
    const long m_tid = 7;
    RepeatFilter m_filter;
};

TEST(RepeatFilter, KeepsEveryChangeWhateverIsLost) {
    for (int lost = 0; lost < 64; ++lost) {
        std::string truth;
        for (int i = 0; i < 3; ++i) {
            truth += (lost >> (2 * i) & 3) == 3 ? "" : i == 1 ? "H" : "L";
        }
        const auto is_lost = [lost](int packet) { return (lost >> packet & 1) != 0; };
        EXPECT_EQ(Twice().Toggle(3, 80, is_lost), truth) << "lost packets: " << lost;
    }
    for (int lost = 0; lost < 15; ++lost) {  // of four packets, again and again
        const auto is_lost = [lost](int packet) { return (lost >> packet % 4 & 1) != 0; };
        const size_t left = (lost & 3) == 3 || lost >> 2 == 3 ? 50 : 100;
        EXPECT_EQ(Twice().Toggle(100, 10, is_lost).size(), left) << "lost packets: " << lost;
    }
}

TEST(RepeatFilter, PairsPackets) {
    Twice host;
    EXPECT_FALSE(host.IsRepeat(1, 1, 0));
    EXPECT_FALSE(host.IsRepeat(2, 1, 0, 2)) << "another host";
    EXPECT_FALSE(host.IsRepeat(2, 0, 0)) << "another value";
    EXPECT_TRUE(host.IsRepeat(2, 1, 1));
    EXPECT_FALSE(host.IsRepeat(3, 1, 2)) << "a message has one copy";
    EXPECT_FALSE(host.IsRepeat(4, 1, 103)) << "too late for a copy";
    EXPECT_FALSE(host.IsRepeat(0xFFFFFFFF, 1, 200));
    EXPECT_TRUE(host.IsRepeat(1, 1, 200)) << "after the last transaction ID";
    EXPECT_FALSE(host.IsRepeat(0, 1, 201));
    EXPECT_FALSE(host.IsRepeat(0, 1, 201)) << "of this program";
}

}  // namespace
