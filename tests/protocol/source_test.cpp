#include "protocol/source.h"

#include <gtest/gtest.h>

#include <string>

#include "tqr/trace.h"

namespace {

TEST(Source, IsRead) {
    const std::string long_source = "1.2.3.4" + std::string(300, '5') + "/2";
    const struct {
        const char* source;
        uint32_t proto, ach;
        const char* ip;
        int port, gpi;
    } table[] = {
        {"0x12:0x34", KIND_BUS, 0x1234, "0.0.0.0", 0, 0},
        {"\"tqs://1:2\"", KIND_BUS, 0x102, "0.0.0.0", 0, 0},
        {"1:0x1FF", KIND_BUS, 0x1FF, "0.0.0.0", 0, 0},
        {"0x1000001:1", KIND_BUS, 0x101, "0.0.0.0", 0, 0},
        {"4294967296", KIND_BUS, 0x7FFFFFFF, "0.0.0.0", 0, 0},
        {"3:7 X=1.5", KIND_BUS, 0x307, "0.0.0.0", 0, 0},
        {"3:7,X=1.5", KIND_REMOTE, 0, "0.0.0.3", 7, 0},
        {"127.0.0.9", KIND_REMOTE, 0, "127.0.0.9", 93, 0},
        {"\"tqs://127.0.0.9:94/2\" NAME=\"x\"", KIND_REMOTE, 0, "127.0.0.9", 94, 1},
        {"127.0.0.9/3:94", KIND_REMOTE, 0, "127.0.0.9", 93, 2},
        {"127.0.0.9:0x5d", KIND_REMOTE, 0, "127.0.0.9", 0, 0},
        {"127.0.0.9:65629", KIND_REMOTE, 0, "127.0.0.9", 93, 0},
        {"127.0.0.9:4294967389", KIND_REMOTE, 0, "127.0.0.9", 65535, 0},
        {"127.0.0.9/0", KIND_REMOTE, 0, "127.0.0.9", 93, 65535},
        {"127.0.0.9/257", KIND_REMOTE, 0, "127.0.0.9", 93, 256},
        {"x.y", KIND_NONE, 0, "255.255.255.255", 0, 0},
        {"none", KIND_NONE, 0, "0.0.0.0", 0, 0},
        {"tqs://1.2.3.4", KIND_REMOTE, 0, "1.2.3.4", 93, 0},
        {"", KIND_NONE, 0, "0.0.0.0", 0, 0},
        {long_source.c_str(), KIND_NONE, 0, "255.255.255.255", 0, 0},  // cut before the '/'
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.source);
        const ChannelConfig config = parse_source(row.source);
        EXPECT_EQ(config.proto, row.proto);
        EXPECT_EQ(config.ach, row.ach);
        EXPECT_STREQ(DottedQuad(config.ip).text, row.ip);
        EXPECT_EQ(config.port, row.port);
        EXPECT_EQ(config.gpi, row.gpi);
    }
}

TEST(Source, AddressesAreOfAnyBase) {
    EXPECT_STREQ(DottedQuad(url2ip("\"0x0A.010.2.300")).text, "10.8.3.44");
    EXPECT_EQ(url2ip("10.0.0-1"), 0U);
    EXPECT_EQ(url2ip(nullptr), 0U);
}

}  // namespace
