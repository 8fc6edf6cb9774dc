// The bytes of the protocol, as the makers of monitors and multiviewers describe them, and the
// file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "tools/base/Descriptor.h"
#include "tools/tsl/Codec.h"
#include "tools/tsl/Config.h"

namespace {

// "80 01 'CAM 1'": hexadecimal bytes and texts.
std::string Bytes(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == '\'') {
            const size_t end = text.find('\'', i + 1);
            bytes += text.substr(i + 1, end - i - 1);
            i = end + 1;
        } else if (text[i] == ' ') {
            ++i;
        } else {
            bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
            i += 2;
        }
    }
    return bytes;
}

const uint8_t* Data(const std::string& bytes) {
    return reinterpret_cast<const uint8_t*>(bytes.data());
}

// What a packet says, or why it is malformed.
std::string Decoded(TslVersion version, const std::string& bytes) {
    std::vector<Display> displays;
    const std::string problem = DecodeTsl(version, Data(bytes), bytes.size(), displays);
    EXPECT_TRUE(problem.empty() || displays.empty());
    std::string text = problem;
    for (const Display& display : displays) {
        text += (text.empty() ? "" : "; ") + DescribeDisplay(display);
    }
    return text;
}

struct Vector {
    TslVersion version;
    const char* bytes;
    const char* said;
};

const TslVersion V31 = TslVersion::V31;
const TslVersion V5 = TslVersion::V5;

// 3.1: "Dynamic UMD Protocol" in the manuals of the SVG multi-viewer and of the R-5T monitor.
// 5.0: "TSLv5" in the manual of the MGG200 multiviewer, appendix 1.
const Vector VECTORS[] = {
    {V31, "80 00 '                '",
     "v3.1 display 0: tally1 off, tally2 off, tally3 off, tally4 off, brightness 0, \"\""},
    {V31, "FE 3F 'STUDIO 1 CAMERA2'",
     "v3.1 display 126: tally1 on, tally2 on, tally3 on, tally4 on, brightness 3, \"STUDIO 1 "
     "CAMERA2\""},
    {V31, "82 14 'A' 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
     "v3.1 display 2: tally1 off, tally2 off, tally3 on, tally4 off, brightness 1, \"A\""},
    {V31, "FF 00 '                '", "no address from 0 to 126"},
    {V31, "7F 00 '                '", "no address from 0 to 126"},
    {V31, "80 40 '                '", "reserved bits of the control byte are set"},
    {V31, "80 80 '                '", "reserved bits of the control byte are set"},
    {V31, "80 00 '               '", "not messages of 18 bytes"},
    {V31, "", "not messages of 18 bytes"},
    {V5, "0E 00 00 00 01 00 04 00 C9 00 04 00 'CAM4'",
     "v5 screen 1 index 4: left off, text green, right red, brightness 3, \"CAM4\""},
    {V5, "0A 00 00 00 00 00 FF FF 30 00 00 00",
     "v5 screen 0 index all: left amber, text off, right off, brightness 0, \"\""},
    {V5, "12 00 00 01 FF FF 01 00 01 00 08 00 'K' 00 FC 00 3D D8 00 DE",
     "v5 screen all index 1: left off, text off, right red, brightness 0, "
     "\"K\xC3\xBC\xF0\x9F\x98\x80\""},
    {V5, "10 00 00 00 00 00 01 00 01 00 00 00 02 00 02 00 00 00",
     "v5 screen 0 index 1: left off, text off, right red, brightness 0, \"\"; "
     "v5 screen 0 index 2: left off, text off, right green, brightness 0, \"\""},
    {V5, "04 00 00 00 01 00", ""},
    {V5, "06 00 00 02 01 00 FF FF", ""},
    {V5, "0A 00 01 00 01 00 04 00 01 00 00 00", "not version 5.0"},
    {V5, "0B 00 00 00 01 00 04 00 01 00 00 00", "its count of bytes is wrong"},
    {V5, "09 00 00 00 01 00 04 00 01 00 00", "a display is cut off"},
    {V5, "0A 00 00 00 01 00 04 00 01 00 01 00", "a label does not fit"},
    {V5, "0B 00 00 01 01 00 04 00 01 00 01 00 'A'", "a label does not fit"},
    {V5, "0A 00 00 00 01 00 04 00 01 80 00 00", "control data, which 5.0 does not define"},
};

TEST(TslCodec, ReadsWhatTheDescriptionsSay) {
    for (const Vector& vector : VECTORS) {
        EXPECT_EQ(Decoded(vector.version, Bytes(vector.bytes)), vector.said) << vector.bytes;
    }
}

Display RandomDisplay(TslVersion version, std::mt19937& random) {
    const char* const letters[] = {"A",   "z", "\xC3\xBC", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                   "\xFE"};
    Display display;
    display.version = version;
    display.screen = version == V5 ? 0x02FE : uint16_t(0);
    display.index = static_cast<uint16_t>(random() % 127);
    display.tallies = static_cast<uint8_t>(random() % (version == V5 ? 64 : 16));
    display.brightness = static_cast<uint8_t>(random() % 4);
    for (auto i = random() % 17; i > 0; --i) {
        display.label += letters[random() % (version == V5 ? 5 : 2)];
    }
    return display;
}

// Displays of all kinds, written, wrapped, cut anywhere and read again, with garbage between them.
TEST(TslCodec, ReadsFromAStreamWhatItWrites) {
    std::mt19937 random(5);
    for (const TslVersion version : {V31, V5}) {
        TslStream stream(version);
        for (int round = 0; round < 500; ++round) {
            std::vector<Display> sent;
            for (auto i = random() % 60; i > 0; --i) {
                sent.push_back(RandomDisplay(version, random));
            }
            const bool has_garbage = round % 7 == 3;
            std::string bytes = has_garbage ? "\x01garbage" : "";
            for (const std::string& packet : EncodeTsl(sent)) {
                EXPECT_LE(packet.size(), version == V5 ? TSL5_MAX_SIZE : TSL31_SIZE);
                bytes += WrapTsl(version, packet);
            }
            std::vector<Display> read;
            int lost = 0;
            for (size_t at = 0; at < bytes.size();) {
                const size_t size = std::min<size_t>(1 + random() % 40, bytes.size() - at);
                stream.Take(
                    Data(bytes) + at, size,
                    [&](const uint8_t* data, size_t length) {
                        EXPECT_EQ(DecodeTsl(version, data, length, read), "");
                    },
                    [&] { ++lost; });
                at += size;
            }
            EXPECT_EQ(lost > 0, has_garbage);
            ASSERT_EQ(read.size(), sent.size());
            for (size_t i = 0; i < sent.size(); ++i) {
                ASSERT_EQ(DescribeDisplay(read[i]), DescribeDisplay(sent[i]));
            }
        }
    }
}

// A packet that ends early costs itself alone.
TEST(TslCodec, FindsThePacketAfterOneThatIsCutOff) {
    for (const TslVersion version : {V31, V5}) {
        Display display;
        display.version = version;
        display.index = 5;
        display.label = "LABEL";
        const std::string whole = WrapTsl(version, EncodeTsl({display})[0]);
        for (size_t cut = 1; cut < whole.size(); ++cut) {
            TslStream stream(version);
            const std::string bytes = whole.substr(0, cut) + whole;
            int packets = 0;
            int lost = 0;
            stream.Take(
                Data(bytes), bytes.size(), [&](const uint8_t*, size_t) { ++packets; },
                [&] { ++lost; });
            EXPECT_EQ(packets, 1) << VersionName(version) << " cut at " << cut;
            EXPECT_EQ(lost, version == V5 && cut == 1 ? 0 : 1) << cut;
        }
    }
}

std::string ErrorsOf(const std::string& text) {
    char name[] = "/tmp/orvex-tsl-test-XXXXXX";
    const Descriptor file(mkstemp(name));
    std::ofstream(name) << "names /dev/null\n" << text;
    std::string errors;
    try {
        TslConfig::Read(name);
    } catch (const ConfigError& error) {
        errors = error.what();
    }
    unlink(name);
    for (size_t at = 0; (at = errors.find(name)) != errors.npos;) {
        errors.erase(at, sizeof name);
    }
    return errors;
}

TEST(TslConfig, TellsAllErrorsWithTheirLines) {
    EXPECT_EQ(ErrorsOf("listen udp 0.0.0.0:8900 v3.1 from 10.0.0.0/8\n"
                       "listen tcp 0.0.0.0:8900 v5\n"
                       "display 126 tally1-or-tally4 -> 1:2:out1 on-loss H 5\n"
                       "display screen 1 index 4 left red-or-amber -> 1:2:out2\n"
                       "send udp 10.0.0.30:8900 v5 screen 1 every 0.5\n"
                       "pin 1:2:in1 -> index 7 right red label \"Front door\"\n"),
              "");
    EXPECT_EQ(ErrorsOf("listen udp 0.0.0.0 v3.1\n"
                       "display 127 tally1 -> 1:2:out1\n"
                       "display 1 tally5 -> 1:2:out1\n"
                       "display screen 1 4 red -> 1:2:out1\n"
                       "display index 4 red 1:2:out1\n"
                       "display 1 tally1 -> 1:2:in1\n"
                       "display 1 tally1 -> 1:2:out1 on-loss H\n"
                       "display 1 tally1 -> 1:2:out1 on-loss H 0.5\n"
                       "display 1 tally1 -> 1:2:out1\n"
                       "display 2 tally1 -> 1:2:out1\n"
                       "pin 1:2:in1 -> index 7 label Door\n"
                       "pin 1:2:in1 -> index 7 tally1 red\n"
                       "nonsense\n"),
              "2: not IP:PORT: 0.0.0.0\n"
              "3: not a number from 0 to 126: 127\n"
              "4: not tally1 to tally4: tally5\n"
              "5: a screen needs an index: screen 1 index 4\n"
              "6: no -> before the output\n"
              "7: an input can't be set: 1:2:in1\n"
              "8: H needs seconds\n"
              "9: not 1 to 3600 seconds: 0.5\n"
              "10: nothing listens for v3.1: no line such as listen udp 0.0.0.0:8900 v3.1\n"
              "11: 1:2:out1 is set by line 10 already; one display may light it by several "
              "tallies: red-or-green\n"
              "12: no tally, such as tally1 or right red\n"
              "13: not tally1 to tally4, right, text or left: red\n"
              "14: unknown setting: nonsense");
}

}  // namespace
