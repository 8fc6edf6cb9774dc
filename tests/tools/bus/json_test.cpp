// Messages as JSON and as text.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

#include "tools/bus/MessageJson.h"
#include "tools/ctl/MessageText.h"

namespace {

std::string Encoded(const CMsg2& message) {
    std::string bytes(message.GetTrueDataSize(), '\0');
    EXPECT_EQ(message.GetData(bytes.data()), bytes.size());
    return bytes;
}

// Every type, by the setters.
void FillWithAllTypes(CMsg2& message) {
    const unsigned char bytes[] = {0, 128, 255};
    const unsigned short words[] = {1, 65535};
    const unsigned long dwords[] = {0, 0xFFFFFFFF};
    CMsg2 nested(16, 16);
    nested.SetId(0x01020304);
    nested.SetWord(5, 6);
    message.SetId(0x41425C22);  // AB\"
    message.SetByte(0x1020D, 1);
    message.SetWord(2, 65535);
    message.SetDword(0xFFFFFFFF, 0xFFFFFFFF);
    message.SetQword(4, 0xFFFFFFFFFFFFFFFF);
    message.SetString(5, "a\\x\"\n\x7F\xC3\xA4\xFF\xC2\x85");
    message.SetString(6, nullptr);
    message.SetByteArray(7, 3, bytes);
    message.SetWordArray(8, 2, words);
    message.SetDwordArray(9, 2, dwords);
    message.SetDwordArray(10, 0, nullptr);
    message.SetMsg(11, &nested);
    // No characters: longer than need be, a surrogate, beyond the last.
    message.SetString(12, "\xC1\xBF\xE0\x9F\xBF\xED\xA0\x80\xF4\x90\x80\x80");
}

const char* const ALL_TYPES =
    R"({"time":1714564800.25,"host":"10.0.0.1","port":2055,"reliable":true,"id":"AB\\\"","items":[)"
    R"({"tag":66061,"type":"byte","value":1},{"tag":2,"type":"word","value":65535},)"
    R"({"tag":4294967295,"type":"dword","value":4294967295},)"
    R"({"tag":4,"type":"qword","value":18446744073709551615},)"
    R"({"tag":5,"type":"string","value":"a\\\\x\"\n\u007f\u00e4\\xFF\u0085"},)"
    R"({"tag":6,"type":"string","value":null},{"tag":7,"type":"bytes","value":[0,128,255]},)"
    R"({"tag":8,"type":"words","value":[1,65535]},{"tag":9,"type":"dwords","value":[0,4294967295]},)"
    R"({"tag":10,"type":"dwords","value":[]},{"tag":11,"type":"message","value":)"
    R"({"id":"0x01020304","items":[{"tag":5,"type":"word","value":6}]}},)"
    R"({"tag":12,"type":"string","value":)"
    R"("\\xC1\\xBF\\xE0\\x9F\\xBF\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80"}]})";

TEST(MessageJson, HoldsAllTypes) {
    Traffic traffic;
    traffic.time = 1714564800.25;
    traffic.host = "10.0.0.1";
    traffic.port = 2055;
    FillWithAllTypes(traffic.message);
    EXPECT_EQ(ToJson(traffic), ALL_TYPES);

    Traffic back;
    FromJson(ALL_TYPES, back);
    EXPECT_EQ(back.time, traffic.time);
    EXPECT_EQ(back.port, traffic.port);
    EXPECT_TRUE(back.message.GetRel());
    EXPECT_EQ(Encoded(back.message), Encoded(traffic.message));
}

TEST(MessageJson, NamesPinsOfKnownMessages) {
    const struct {
        const char* id;
        const char* type;
        int value;
        const char* rest;
    } cases[] = {
        {"INDI", "byte", 1, R"(,"pin":"1:2:out1","level":"L")"},
        {"INDI", "byte", 0, R"(,"pin":"1:2:out1","level":"H")"},
        {"WRNI", "byte", 0x40, R"(,"pin":"1:2:out1","level":"L")"},
        {"WRIN", "byte", 0x85, R"(,"pin":"1:2:out1","level":"H","duration":50)"},
        {"READ", "byte", 0, R"(,"pin":"1:2:out1")"},
        {"READ", "word", 0, R"(,"pin":"1:2:out1")"},
        {"ABCD", "byte", 1, ""},
    };
    for (const auto& c : cases) {
        const std::string value =
            ",\"type\":\"" + std::string(c.type) + "\",\"value\":" + std::to_string(c.value);
        const std::string head = "{\"id\":\"" + std::string(c.id) + "\",\"items\":[{";
        Traffic traffic;
        FromJson(std::string(head).append(R"("pin":"258:out1")").append(value).append("}]}"),
                 traffic);
        EXPECT_FALSE(traffic.message.GetRel());
        const std::string item = "[{\"tag\":66056" + value + c.rest + "}]";
        EXPECT_NE(ToJson(traffic).find(item), std::string::npos) << ToJson(traffic);
    }
}

TEST(MessageJson, RefusesOtherTexts) {
    const std::string item = R"({"tag":1,"type":"byte","value":1})";
    std::string deep = R"({"id":"ABCD","items":[]})";
    for (int i = 0; i < 33; ++i) {
        deep.insert(0, R"({"id":"ABCD","items":[{"tag":1,"type":"message","value":)");
        deep += "}]}";
    }
    const std::string lines[] = {
        "",
        R"({"id":"ABCD"})",
        R"({"id":4294967296,"items":[]})",
        R"({"id":"0x1234567g","items":[]})",
        R"({"id":"ABCD","items":[],"time":"now"})",
        R"({"id":"ABCD","items":[{"type":"byte","value":1}]})",
        R"({"id":"ABCD","items":[{"pin":"258:8","type":"byte","value":1}]})",
        R"({"id":"ABCD","items":[{"tag":1,"type":"bit","value":1}]})",
        R"({"id":"ABCD","items":[{"tag":1,"type":"byte","value":256}]})",
        R"({"id":"ABCD","items":[{"tag":1,"type":"word","value":1.5}]})",
        R"({"id":"ABCD","items":[{"tag":1,"type":"string","value":")" + std::string(65524, 'x') +
            "\"}]}",
        deep};
    for (const std::string& line : lines) {
        Traffic traffic;
        EXPECT_THROW(FromJson(line, traffic), std::invalid_argument) << line.substr(0, 100);
    }
}

// Whatever decodes as a message becomes valid JSON in printable ASCII, and the same message again.
TEST(MessageJson, CarriesWhateverArrives) {
    CMessage all(16, 16);
    FillWithAllTypes(all);
    const std::string valid = Encoded(all) + std::string("\0\0\0\1\x0C\0\5", 7);
    std::mt19937 random(1);
    int decoded = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string bytes = valid;
        bytes[5] = static_cast<char>(random() % 14);
        for (unsigned int i = random() % 4; i > 0; --i) {
            bytes[6 + random() % (bytes.size() - 6)] = static_cast<char>(random() % 256);
        }
        Traffic traffic;
        if (traffic.message.SetData(bytes.data(), bytes.size()) == 0) {
            continue;
        }
        ++decoded;
        const std::string json = ToJson(traffic);
        ASSERT_TRUE(nlohmann::json::accept(json)) << json;
        const std::string shown = json + ToText(traffic, {Names(), true});
        ASSERT_TRUE(std::all_of(shown.begin(), shown.end(), [](char c) {
            return (c >= ' ' && c <= '~') || c == '\n';
        })) << shown;
        Traffic back;
        FromJson(json, back);
        ASSERT_EQ(Encoded(back.message), Encoded(traffic.message)) << json;
    }
    EXPECT_GT(decoded, 1000);
}

TEST(MessageJson, BoundsItsDepth) {
    std::string bytes("ABCD\0\0", 6);
    while (bytes.size() + 13 <= 65507) {
        const char length[] = {static_cast<char>(bytes.size() >> 8),
                               static_cast<char>(bytes.size())};
        bytes.insert(0, std::string("ABCD\0\1\0\0\0\1\6", 11).append(length, 2));
    }
    Traffic traffic;
    ASSERT_EQ(traffic.message.SetData(bytes.data(), bytes.size()), bytes.size());
    Traffic back;
    FromJson(ToJson(traffic), back);
    EXPECT_EQ(Encoded(back.message), bytes);
}

TEST(MessageText, ShowsPinsInColumns) {
    Traffic traffic;
    FromJson(R"({"id":"WRNI","items":[{"tag":4294967295,"type":"dword","value":5},)"
             R"({"pin":"1:2:out1","type":"byte","value":65}]})",
             traffic);
    traffic.host = "10.0.0.1";
    const auto shown = [&](bool everything) {
        const std::string text = ToText(traffic, {Names(), everything});
        return text.substr(text.find("  10."));
    };
    const std::string head = "  10.0.0.1         write   ";
    EXPECT_EQ(shown(false), head + "1:2:out1      L for 250 ms\n");
    EXPECT_EQ(ToText(traffic, {Names(), true}).find("request       dword 5\n"), 12 + head.size());
    traffic.message.Empty();
    EXPECT_EQ(shown(false), head + "(no pins)\n");
}

}  // namespace
