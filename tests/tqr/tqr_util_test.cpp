#include "tqr/tqr_util.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tqr/line.h"
#include "tqr/trace.h"

namespace {

TEST(TqrUtil, FindsTheFieldWithTheWholeTag) {
    const struct {
        const char* line;
        const char* value;  // of B, to the end of the line; null: not found
    } table[] = {
        {"BB=1 AB=1 B=2 B=3", "2 B=3"},
        {"B:", ""},
        {R"(X="B=1" B=2)", "2"},
        {R"(X=a\ B=1 B=2)", "2"},
        {R"(X=\" B=1)", "1"},
        {R"(X="open B=1)", nullptr},
        {" , B=1", "1"},
        {"b=1 B", nullptr},
        {"", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& row : table) {
        EXPECT_STREQ(tqr_findval(row.line, "B"), row.value) << (row.line ? row.line : "null");
    }
    EXPECT_STREQ(tqr_findval("=7", ""), "7");
    EXPECT_EQ(tqr_findval("A=1", nullptr), nullptr);
}

TEST(TqrUtil, CopiesAndMeasuresValues) {
    const struct {
        const char* value;
        int size;  // of the copy's buffer
        const char* copy;
        int len;  // of the whole value
    } table[] = {
        {R"("a b",c)", 20, "a b", 3},
        {R"(a\ b c)", 20, "a b", 3},
        {R"("a,b" x)", 20, "a,b", 3},
        {R"(a\"b\\c)", 20, R"(a"b\c)", 5},
        {"ab\\", 20, "ab\\", 3},
        {"ab\rc", 20, "ab", 2},
        {"\"a\nb\"", 20, "a\nb", 1},
        {R"(a"b c"d e)", 20, "ab cd", 5},
        {"", 20, "", 0},
        {nullptr, 20, "", 0},
        {"abcdef", 4, "abc", 6},
        {R"(ab\"cd)", 4, "ab\"", 5},
        {R"("a b c")", 4, "a b", 5},
        {"abc", 1, "", 3},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.value == nullptr ? "null" : row.value);
        char copy[24];
        memset(copy, '#', sizeof copy);
        tqr_copyval(copy, row.value, row.size);
        EXPECT_STREQ(copy, row.copy);
        EXPECT_EQ(copy[row.size], '#') << "nothing past the size";
        EXPECT_EQ(tqr_vallen(row.value), row.len);
        char* dup = tqr_valdup(row.value);
        EXPECT_EQ(dup == nullptr ? 0 : strlen(dup), static_cast<size_t>(row.len));
        free(dup);
    }
    char none[] = "#";
    tqr_copyval(none, "abc", 0);
    EXPECT_STREQ(none, "#");
    tqr_copyval(nullptr, "abc", 9);
}

TEST(TqrUtil, EscapesQuotesWhole) {
    const struct {
        int size;
        const char* text;
    } table[] = {{20, R"(say \"hi\")"}, {6, "say "}, {7, R"(say \")"}, {1, ""}};
    for (const auto& row : table) {
        char out[24];
        memset(out, '#', sizeof out);
        EXPECT_EQ(tqr_escape(out, row.size, R"(say "hi")"), static_cast<int>(strlen(row.text)));
        EXPECT_STREQ(out, row.text);
        EXPECT_EQ(out[row.size], '#');
    }
    char out[] = "#";
    EXPECT_EQ(tqr_escape(out, 0, "a") + tqr_escape(nullptr, 5, "a"), 0);
    EXPECT_STREQ(out, "#");
    EXPECT_EQ(tqr_escape(out, 1, nullptr), 0);
    EXPECT_STREQ(out, "");
}

TEST(TqrUtil, NumbersAreThoseOfA32BitHost) {
    const struct {
        const char* text;
        long value;
        unsigned long unsigned_value;
    } table[] = {
        {"0x10", 16, 16},
        {" -0X10", -16, 0xFFFFFFF0},
        {"020", 16, 16},
        {"0b1", 0, 0},
        {"-1", -1, 0xFFFFFFFF},
        {"2147483648", 2147483647, 2147483648},
        {"-2147483649", -2147483647 - 1, 0x7FFFFFFF},
        {"4294967296", 2147483647, 0xFFFFFFFF},
        {"99999999999999999999", 2147483647, 0xFFFFFFFF},
        {"abc", 0, 0},
    };
    for (const auto& row : table) {
        EXPECT_EQ(tqr_strtol(row.text, nullptr, 0), row.value) << row.text;
        EXPECT_EQ(tqr_strtoul(row.text, nullptr, 0), row.unsigned_value) << row.text;
    }
    EXPECT_EQ(tqr_vall(R"("0x10")") + tqr_vall(nullptr), 16);
}

TEST(TqrUtil, ReadsUrls) {
    const unsigned short UNTOUCHED = 1;
    const struct {
        const char* url;
        const char* address;
        unsigned short port;
    } table[] = {
        {"tqs://300", "239.192.1.44", 5004},        {"tqs://1:2", "239.192.0.1", 5004},
        {"\"tqs://0x12345", "239.192.35.69", 5004}, {"tqs://10.0.0.5:0x10", "10.0.0.5", 16},
        {"10.0.0.5:60000", "10.0.0.5", 60000},      {"10.257.0.5/3", "10.1.0.5", 5004},
        {"http://1.2.3.4", "0.0.0.0", UNTOUCHED},   {"x tqs://1", "0.0.0.0", UNTOUCHED},
        {"0.1.2.3", "0.0.0.0", UNTOUCHED},          {"10.0.5", "0.0.0.0", UNTOUCHED},
        {"10.0.0-5", "0.0.0.0", UNTOUCHED},         {"", "0.0.0.0", UNTOUCHED},
    };
    for (const auto& row : table) {
        unsigned short port = UNTOUCHED;
        EXPECT_STREQ(DottedQuad(tq_url2ip(row.url, &port)).text, row.address) << row.url;
        EXPECT_EQ(port, row.port) << row.url;
    }
    EXPECT_EQ(tq_url2ip("10.0.0.5", nullptr), inet_addr("10.0.0.5"));
    EXPECT_EQ(tq_url2ip(nullptr, nullptr), 0U);
}

TEST(TqrUtil, MergesChangedFields) {
    const char* only_c[] = {"C", nullptr};
    const char* longer[] = {"X", "DATA", nullptr};
    const struct {
        const char* base;
        const char* changes;
        const char** allowed;
        const char* result;
    } table[] = {
        {"A=1 B=2,C=3", "B=9 D=4", nullptr, "A=1 B=9 C=3 D=4"},
        {"A=1 B=2,C=3", "B=9 D=4", only_c, "A=1 B=9 C=3"},
        {"A=1", "D=4 E=5", longer, "A=1 D=4"},
        {"HWID:20 X=1", "HWID:14", nullptr, "HWID:20 X=1"},
        {"HWID:20 X=1", "HWID:32767", nullptr, "HWID:32767 X=1"},
        {"HWID:20 X=1", "HWID:32768", nullptr, "HWID:20 X=1"},
        {"HWID:20", "HWID:4294967316", nullptr, "HWID:20"},
        {"X=1", "HWID:7", nullptr, "X=1 HWID:7"},
        {"A=1 A=2", "A=33", nullptr, "A=33 A=33"},
        {"A=1", R"(N="x y\" z" A=2)", nullptr, R"(A=2 N="x y\" z")"},
        {"A=1,=5", "=6", nullptr, "A=1"},
        {nullptr, "A=1 B=2", nullptr, "A=1 B=2"},
        {nullptr, nullptr, nullptr, ""},
    };
    for (const auto& row : table) {
        std::string out;
        while (out.size() < 100) {
            out += "B=";  // what was written before is no field
        }
        const char* end = tqr_alter_str(out.data(), row.base, row.changes, row.allowed);
        EXPECT_STREQ(out.c_str(), row.result);
        EXPECT_EQ(end, out.data() + strlen(row.result));
    }
}

// Whatever the size of the buffer, it contains a prefix of the whole text.
TEST(Line, IsTruncatedToItsBuffer) {
    char room[40], line[16], tight[1];
    write_line(room, "GPO ", INT_MIN, " ", "LHHHH", " ", 0, "\n");
    EXPECT_STREQ(room, "GPO -2147483648 LHHHH 0\n");
    write_line(line, "GPO ", INT_MIN, "\n");
    EXPECT_STREQ(line, "GPO -2147483648");
    write_line(line, "GPO 123456 ", 78901, 2, "\n");
    EXPECT_STREQ(line, "GPO 123456 7890");
    write_line(tight, "GPO");
    EXPECT_STREQ(tight, "");
}

}  // namespace
