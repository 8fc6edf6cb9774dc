#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "msg/Message.h"
#include "tests/msg/bytes.h"

namespace {

// Cases that the tests of the encoding do not cover.
const struct {
    const char* data;
    unsigned char type;
    int flags;
    const char* text;
} LINES[] = {
    {"494E4449 0000", 'M', 1, "MSG  [INDI ]"},
    {"494E4449 0000", 'R', 1, "REQ  [INDI ]"},
    {"494E4449 0000", 'T', 1, "RES  [INDI ]"},
    {"494E4449 0000", '?', 1, "     [INDI ]"},
    {"494E0049 0000", 'A', 1, "UNKN [IN ]"},
    {"494E4449 0001 4E414D45 07 05", 0, 0, "DGRM [INDI =05]"},
    {"494E4449 0002 4E414D45 08 0005 FFFFFFFF 07 05", ' ', 2, "[INDI NAME=0005,*id*=05]"},
    {"494E4449 0002 FFFFFFFE 07 06 00414D45 01 00000005", ' ', 3,
     "[INDI FFFFFFFE/refi=06,00414D45/=00000005]"},
    {"494E4449 0002 0000000A 02 0004 61620063 0000000A 03 0003 6F006B", ' ', 1,
     "[INDI 0000000A='ab',0000000A={o}]"},
    {"494E4449 0002 00000009 06 000C 494E0000 0001 41000000 07 01 42000000 07 02", 'M', 2,
     "MSG  [INDI =DGRM [IN A=01],B=02]"},
};

TEST(Dump, WritesALine) {
    for (const auto& line : LINES) {
        CMsg2 msg(0, 16);
        ASSERT_EQ(decode(msg, Hex(line.data)), Hex(line.data).size()) << line.text;
        EXPECT_EQ(dump(msg, line.type, line.flags), line.text);
    }
}

TEST(Dump, StaysInItsBuffer) {
    CMsg2 text(1, 1), words(1, 1), items(1000, 0);
    text.SetString(1, std::string(1990, 'x').c_str());
    words.SetWordArray(1, 65535, nullptr);
    for (unsigned int tag = 0; tag < 1000; ++tag) {
        items.SetByte(tag, 0);
    }
    for (const CMsg2* part : {&text, &words, &items}) {
        CMsg2 msg(2, 0);
        msg.SetMsg(0x41, part);
        msg.SetMsg(0x42, part);
        char buf[MSG_TEXT_SIZE + 1];
        buf[MSG_TEXT_SIZE] = '#';
        EXPECT_EQ(Msg2String(&msg, 0, buf, MSG_LABEL_TAG), buf);
        EXPECT_EQ(strlen(buf), MSG_TEXT_SIZE - 1);
        EXPECT_EQ(buf[MSG_TEXT_SIZE], '#');
    }
    // A text that just fits is not truncated.
    const size_t length = MSG_TEXT_SIZE - 1 - strlen("[ 00000001='']");
    text.SetString(1, std::string(length, 'x').c_str());
    EXPECT_EQ(dump(text), "[ 00000001='" + std::string(length, 'x') + "']");
}

TEST(Dump, UsesTheTypeOfAMessage) {
    char buf[MSG_TEXT_SIZE];
    CMessage msg(16, 16);
    msg.SetMsgType('M');
    EXPECT_STREQ(Message2String(&msg, buf, 1), "MSG  [ ]");
    EXPECT_EQ(Msg2String(nullptr, 0, buf, 1), nullptr);
    EXPECT_EQ(Msg2String(&msg, 0, nullptr, 1), nullptr);
}

}  // namespace
