#include <gtest/gtest.h>

#include <string>

#include "msg/Message.h"
#include "tests/msg/bytes.h"

namespace {

void build_flat(CMsg2& m) {
    const unsigned char some_bytes[] = {'o', 'k'};
    const unsigned short words[] = {1, 0xABCD};
    const unsigned long dwords[] = {0x01020304, static_cast<unsigned long>(-2)};
    m.SetId(0x494E4449);
    m.SetDword(static_cast<unsigned long>(-2), 7);
    m.SetByte(0x00010208, 1);
    m.SetWord(1, 0xFFFE);
    m.SetQword(0xFFFFFFFC, 0x0102030405060708);
    m.SetString(0x4E414D45, "ab");
    m.SetString(2, nullptr);
    m.SetByteArray(3, 2, some_bytes);
    m.SetWordArray(4, 2, words);
    m.SetDwordArray(5, 2, dwords);
    m.SetDwordArray(6, 0, dwords);
}

void build_nested(CMsg2& m) {
    CMsg2 inner(1, 1), middle(1, 1);
    inner.SetId(0x494E0000);
    middle.SetByte(9, 0x85);
    middle.SetMsg(1, &inner);
    m.SetMsg(2, &middle);
    m.SetByte(3, 3);
}

const struct {
    void (*build)(CMsg2&);
    std::string data;
    const char* text;
} ENCODED[] = {
    {build_flat,
     Hex("494E4449 000A"                      // INDI, 10 items
         "FFFFFFFE 01 00000007"               // dword
         "00010208 07 01"                     // byte
         "00000001 08 FFFE"                   // word
         "FFFFFFFC 09 0102030405060708"       // qword
         "4E414D45 02 0003 616200"            // string: 3 bytes, with its NUL
         "00000002 02 0000"                   // string without text
         "00000003 03 0002 6F6B"              // 2 bytes
         "00000004 04 0002 0001ABCD"          // 2 words
         "00000005 05 0002 01020304FFFFFFFE"  // 2 dwords
         "00000006 05 0000"),                 // no dwords
     "[INDI FFFFFFFE=00000007,00010208=01,00000001=FFFE,FFFFFFFC=0102030405060708,4E414D45='ab',"
     "00000002='',00000003={ok},00000004={0001, ABCD},00000005={01020304, FFFFFFFE},00000006={}]"},
    {build_nested,
     Hex("00000000 0002"       // no identifier, 2 items
         "00000002 06 0019"    // a message of 25 bytes
         "  00000000 0002"     //   2 items
         "  00000009 07 85"    //   a byte
         "  00000001 06 0006"  //   a message of 6 bytes
         "    494E0000 0000"   //     no items
         "00000003 07 03"),    // a byte
     "[ 00000002=DGRM [ 00000009=85,00000001=DGRM [IN ]],00000003=03]"},
};

TEST(Wire, EncodesAndDecodes) {
    for (const auto& v : ENCODED) {
        SCOPED_TRACE(v.text);
        CMsg2 built(2, 2), decoded(2, 2);
        v.build(built);
        EXPECT_EQ(built.GetDataSize(), v.data.size());
        EXPECT_EQ(encode(built), v.data);
        EXPECT_EQ(decode(decoded, v.data + "abc"), v.data.size());
        EXPECT_EQ(dump(decoded), v.text);
        EXPECT_EQ(encode(decoded), v.data);
        for (size_t len = 0; len < v.data.size(); ++len) {
            EXPECT_EQ(decode(decoded, v.data.substr(0, len)), 0) << len;
            EXPECT_EQ(decoded.GetItemCount(), 0) << len;
        }
    }
}

TEST(Wire, DecodingMakesRoomForTheItemsOnly) {
    const std::string three = Hex("00000000 0003 00000001 07 01 00000002 07 01 00000003 07 01");
    CMsg2 msg(2, 0);
    EXPECT_EQ(decode(msg, three), three.size());
    EXPECT_FALSE(msg.SetByte(4, 4));
}

TEST(Wire, KeepsTo65535Bytes) {
    CMsg2 msg(16, 16), again(0, 16);
    msg.SetByteArray(1, 65535 - 13, nullptr);
    const std::string longest = encode(msg);
    EXPECT_EQ(decode(again, longest), 65535);
    EXPECT_EQ(decode(again, Hex("00000000 0002 00000001 07 01") + longest.substr(6, 7) +
                                std::string(65535, 'x')),
              0);
    msg.SetByteArray(1, 65536 - 13, nullptr);
    EXPECT_EQ(encode(msg), "") << "what does not fit 16 bits is never written";
    msg.SetDwordArray(2, 65535, nullptr);
    msg.SetMsg(3, &msg);
    const unsigned long inner = 65536 + 7 + 65535 * 4;
    EXPECT_EQ(msg.GetTrueDataSize(), inner + 7 + inner);
    EXPECT_EQ(msg.GetDataSize(), (inner + 7 + inner) % 65536);
}

}  // namespace
