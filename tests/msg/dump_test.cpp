#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "msg/Message.h"
#include "tests/msg/bytes.h"

namespace {

const unsigned char PLAIN[] = {'o', 'k', 0, 'x'};

// Items of types that no setter makes come from the wire.
void add_unknown(CMsg2& m) {
    const std::string data = bytes({'I', 'N', 'D', 'I', 0, 2, 0, 0, 0, 9, 12, 0, 5,  // type 12
                                    0,   0,   0,   9,   8, 0, 5});                   // a word
    decode(m, data);
}

const struct {
    void (*build)(CMsg2&);
    unsigned char type;
    int flags;
    const char* text;
} LINES[] = {
    {[](CMsg2&) {}, 0, 1, "DGRM [INDI ]"},
    {[](CMsg2&) {}, 'M', 1, "MSG  [INDI ]"},
    {[](CMsg2&) {}, 'R', 1, "REQ  [INDI ]"},
    {[](CMsg2&) {}, 'T', 1, "RES  [INDI ]"},
    {[](CMsg2&) {}, '?', 1, "     [INDI ]"},
    {[](CMsg2&) {}, ' ', 1, "[INDI ]"},
    {[](CMsg2&) {}, 'A', 1, "UNKN [INDI ]"},
    {[](CMsg2& m) { m.SetId(0x494E0041); }, ' ', 1, "[IN ]"},
    {[](CMsg2& m) { m.SetByte(0x4E414D45, 5); }, ' ', 0, "[INDI =05]"},
    {[](CMsg2& m) { m.SetWord(0x4E414D45, 5); }, ' ', 2, "[INDI NAME=0005]"},
    {[](CMsg2& m) { m.SetDword(0x00414D45, 5); }, ' ', 3, "[INDI 00414D45/=00000005]"},
    {[](CMsg2& m) { m.SetQword(0xFFFFFFFE, 5); }, ' ', 3, "[INDI FFFFFFFE/refi=0000000000000005]"},
    {[](CMsg2& m) { m.SetByte(0xFFFFFFFF, 5); }, ' ', 2, "[INDI *id*=05]"},
    {[](CMsg2& m) { m.SetByteArray(10, 4, PLAIN); }, ' ', 1, "[INDI 0000000A={ok}]"},
    {[](CMsg2& m) { m.SetByteArray(10, 1, PLAIN); }, ' ', 1, "[INDI 0000000A={o}]"},
    {[](CMsg2& m) { m.SetWordArray(10, 2, nullptr); }, ' ', 1, "[INDI 0000000A={0000, 0000}]"},
    {[](CMsg2& m) { m.SetString(10, nullptr); }, ' ', 1, "[INDI 0000000A='']"},
    {add_unknown, ' ', 3, "[INDI *unknown type=12*,00000009/=0005]"},
    {[](CMsg2& m) {
         m.SetByte(1, 1);
         m.SetMsg(2, &m);
     },
     'M', 1, "MSG  [INDI 00000001=01,00000002=DGRM [INDI 00000001=01]]"},
};

TEST(Dump, WritesALine) {
    for (const auto& line : LINES) {
        CMsg2 msg(16, 16);
        msg.SetId(0x494E4449);
        line.build(msg);
        EXPECT_EQ(dump(msg, line.type, line.flags), line.text);
    }
}

TEST(Dump, StaysInItsBuffer) {
    const std::string text(1990, 'x');
    CMsg2 inner(16, 16), words(16, 16), many(16, 16);
    inner.SetString(1, text.c_str());
    words.SetWordArray(1, 65535, nullptr);
    for (unsigned int tag = 0; tag < 1000; ++tag) {
        many.SetByte(tag, 0);
    }
    for (const CMsg2* part : {&inner, &words, &many}) {
        CMsg2 msg(16, 16);
        msg.SetMsg(0x41, part);
        msg.SetMsg(0x42, part);
        char buf[MSG_TEXT_SIZE + 1];
        buf[MSG_TEXT_SIZE] = '#';
        ASSERT_EQ(Msg2String(&msg, 0, buf, MSG_LABEL_TAG), buf);
        EXPECT_EQ(strlen(buf), MSG_TEXT_SIZE - 1);
        EXPECT_EQ(buf[MSG_TEXT_SIZE], '#');
        EXPECT_EQ(std::string(buf).substr(0, 29), "DGRM [ 00000041=DGRM [ 000000");
    }
    // A text that fits to the last character is whole.
    inner.SetString(1, text.substr(0, MSG_TEXT_SIZE - 1 - strlen("[ 00000001='']")).c_str());
    EXPECT_EQ(dump(inner).substr(MSG_TEXT_SIZE - 4), "x']");
}

TEST(Dump, TakesTheTypeOfAMessage) {
    char buf[MSG_TEXT_SIZE] = "#";
    CMessage msg(16, 16);
    EXPECT_STREQ(Message2String(&msg, buf, 1), "DGRM [ ]");
    msg.SetMsgType('M');
    EXPECT_STREQ(Message2String(&msg, buf, 1), "MSG  [ ]");
    EXPECT_EQ(Msg2String(nullptr, 0, buf, 1), nullptr);
    EXPECT_STREQ(buf, "MSG  [ ]");
    EXPECT_EQ(Msg2String(&msg, 0, nullptr, 1), nullptr);
}

}  // namespace
