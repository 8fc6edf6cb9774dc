#include <gtest/gtest.h>

#include <string>

#include "msg/Message.h"
#include "tests/captures.h"
#include "tests/msg/bytes.h"

namespace {

struct Encoded {
    const char* name;
    void (*build)(CMsg2&);
    std::string data;
    const char* text;
};

const Encoded ENCODED[] = {
    {"no items", [](CMsg2& m) { m.SetId(0x494E4449); },
     bytes({'I', 'N', 'D', 'I', 0, 0}),  // identifier, no items
     "[INDI ]"},
    {"numbers and a string",
     [](CMsg2& m) {
         m.SetId(0x494E4449);
         m.SetDword(static_cast<unsigned long>(-2), 7);
         m.SetByte(0x00010208, 1);
         m.SetWord(0x85, 0xFFFE);
         m.SetQword(0xFFFFFFFC, 0x0102030405060708);
         m.SetString(0x4E414D45, "ab");
     },
     bytes({
         0x49, 0x4E, 0x44, 0x49, 0x00, 0x05,                       // INDI, 5 items
         0xFF, 0xFF, 0xFF, 0xFE, 1,    0x00, 0x00, 0x00, 0x07,     // dword
         0x00, 0x01, 0x02, 0x08, 7,    0x01,                       // byte
         0x00, 0x00, 0x00, 0x85, 8,    0xFF, 0xFE,                 // word
         0xFF, 0xFF, 0xFF, 0xFC, 9,                                // qword
         0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,           // its value
         0x4E, 0x41, 0x4D, 0x45, 2,    0x00, 0x03, 'a',  'b',  0,  // string of 3 bytes
     }),
     "[INDI FFFFFFFE=00000007,00010208=01,00000085=FFFE,FFFFFFFC=0102030405060708,4E414D45='ab']"},
    {"arrays",
     [](CMsg2& m) {
         const unsigned char some_bytes[] = {'o', 'k', 0xFF};
         const unsigned short words[] = {1, 0xABCD};
         const unsigned long dwords[] = {0x01020304, static_cast<unsigned long>(-2)};
         m.SetByteArray(1, 2, some_bytes);
         m.SetWordArray(2, 2, words);
         m.SetDwordArray(3, 2, dwords);
         m.SetDwordArray(4, 0, dwords);
         m.SetString(5, nullptr);
         m.SetString(6, "");
     },
     bytes({
         0, 0, 0, 0, 0, 6,                             // no identifier, 6 items
         0, 0, 0, 1, 3, 0, 2, 'o',  'k',               // 2 bytes
         0, 0, 0, 2, 4, 0, 2, 0x00, 0x01, 0xAB, 0xCD,  // 2 words
         0, 0, 0, 3, 5, 0, 2, 1,    2,    3,    4,    0xFF, 0xFF, 0xFF, 0xFE,  // 2 dwords
         0, 0, 0, 4, 5, 0, 0,                                                  // no dwords
         0, 0, 0, 5, 2, 0, 0,     // a string without storage
         0, 0, 0, 6, 2, 0, 1, 0,  // an empty string
     }),
     "[ 00000001={ok},00000002={0001, ABCD},00000003={01020304, FFFFFFFE},00000004={},"
     "00000005='',00000006='']"},
    {"nested messages",
     [](CMsg2& m) {
         CMsg2 inner(1, 1), middle(1, 1);
         inner.SetId(0x494E0000);
         middle.SetByte(9, 0x85);
         middle.SetMsg(1, &inner);
         m.SetMsg(2, &middle);
         m.SetByte(3, 3);
     },
     bytes({
         0,   0,   0, 0, 0, 2,         // no identifier, 2 items
         0,   0,   0, 2, 6, 0,    25,  // a message of 25 bytes:
         0,   0,   0, 0, 0, 2,         //   2 items
         0,   0,   0, 9, 7, 0x85,      //   a byte
         0,   0,   0, 1, 6, 0,    6,   //   a message of 6 bytes:
         'I', 'N', 0, 0, 0, 0,         //     no items
         0,   0,   0, 3, 7, 3,         // a byte
     }),
     "[ 00000002=DGRM [ 00000009=85,00000001=DGRM [IN ]],00000003=03]"},
};

TEST(Wire, EncodesAndDecodes) {
    for (const Encoded& v : ENCODED) {
        SCOPED_TRACE(v.name);
        CMsg2 built(2, 2);
        v.build(built);
        EXPECT_EQ(built.GetDataSize(), v.data.size());
        EXPECT_EQ(built.GetTrueDataSize(), v.data.size());
        EXPECT_EQ(encode(built), v.data);

        CMsg2 decoded(2, 2);
        EXPECT_EQ(decode(decoded, v.data), v.data.size());
        EXPECT_EQ(dump(decoded), v.text);
        EXPECT_EQ(encode(decoded), v.data);
        EXPECT_EQ(decode(decoded, v.data + "abc"), v.data.size());
        EXPECT_EQ(dump(decoded), v.text);
        for (size_t len = 0; len < v.data.size(); ++len) {
            EXPECT_EQ(decode(decoded, v.data.substr(0, len)), 0) << len;
            EXPECT_EQ(decoded.GetItemCount(), 0) << len;
        }
    }
}

struct Received {
    const char* name;
    std::string data;
    bool good;
    const char* text;
    std::string again;  // what it is encoded to again
};

const std::string BYTE_ITEM = bytes({0, 0, 0, 1, 7, 1});

const Received RECEIVED[] = {
    {"an unknown type", bytes({'I', 'D', 0, 0, 0, 2, 0, 0, 0, 9, 12, 0, 5}) + BYTE_ITEM, true,
     "[ID *unknown type=12*,00000001=01]",
     bytes({'I', 'D', 0, 0, 0, 2, 0, 0, 0, 9, 12, 0, 5}) + BYTE_ITEM},
    {"no type", bytes({'I', 'D', 0, 0, 0, 2, 0, 0, 0, 9, 0, 0, 5}) + BYTE_ITEM, true,
     "[ID *unknown type=0*,00000001=01]", bytes({'I', 'D', 0, 0, 0, 1}) + BYTE_ITEM},
    {"a string without end", bytes({'I', 'D', 0, 0, 0, 1, 0, 0, 0, 9, 2, 0, 2, 'a', 'b'}), true,
     "[ID 00000009='ab']", bytes({'I', 'D', 0, 0, 0, 1, 0, 0, 0, 9, 2, 0, 2, 'a', 'b'})},
    {"a tag used twice", bytes({'I', 'D', 0, 0, 0, 2}) + BYTE_ITEM + bytes({0, 0, 0, 1, 8, 2, 3}),
     true, "[ID 00000001=01,00000001=0203]",
     bytes({'I', 'D', 0, 0, 0, 2}) + BYTE_ITEM + bytes({0, 0, 0, 1, 8, 2, 3})},
    {"a nested message without bytes", bytes({'I', 'D', 0, 0, 0, 1, 0, 0, 0, 9, 6, 0, 0}), true,
     "[ID 00000009=DGRM [ ]]",
     bytes({'I', 'D', 0, 0, 0, 1, 0, 0, 0, 9, 6, 0, 6, 0, 0, 0, 0, 0, 0})},
    {"a nested message that lacks its item",
     bytes({'I', 'D', 0, 0, 0, 2, 0, 0, 0, 9, 6, 0, 6, 'X', 0, 0, 0, 0, 1}) + BYTE_ITEM, true,
     "[ID 00000009=DGRM [X ],00000001=01]",
     bytes({'I', 'D', 0, 0, 0, 2, 0, 0, 0, 9, 6, 0, 6, 'X', 0, 0, 0, 0, 0}) + BYTE_ITEM},
    {"words that pass the end",
     bytes({'I', 'D', 0, 0, 0, 2}) + BYTE_ITEM + bytes({0, 0, 0, 9, 4, 0, 3, 0, 1, 0, 2}), false,
     "[ID ]", bytes({'I', 'D', 0, 0, 0, 0})},
    {"a nested message that passes the end",
     bytes({'I', 'D', 0, 0, 0, 1, 0, 0, 0, 9, 6, 0, 7, 'X', 0, 0, 0, 0, 0}), false, "[ID ]",
     bytes({'I', 'D', 0, 0, 0, 0})},
};

TEST(Wire, DecodesWhatNobodyEncodes) {
    for (const Received& v : RECEIVED) {
        SCOPED_TRACE(v.name);
        CMsg2 msg(0, 16);
        EXPECT_EQ(decode(msg, v.data), v.good ? v.data.size() : 0);
        EXPECT_EQ(dump(msg), v.text);
        EXPECT_EQ(encode(msg), v.again);
    }
}

TEST(Wire, DecodingSetsTheRoom) {
    const std::string five =
        bytes({0, 0, 0, 0, 0, 5}) + BYTE_ITEM + BYTE_ITEM + BYTE_ITEM + BYTE_ITEM + BYTE_ITEM;
    CMsg2 msg(2, 0);
    EXPECT_EQ(decode(msg, five), five.size());
    EXPECT_FALSE(msg.SetByte(2, 2));  // exactly five slots, and no growth
    EXPECT_EQ(CMsg2(five.data(), five.size(), 1).GetItemCount(), 5);
    EXPECT_EQ(CMsg2(five.data(), five.size() - 1, 1).GetItemCount(), 0);
}

TEST(Wire, KeepsTo65535Bytes) {
    CMsg2 msg(16, 16);
    msg.SetByteArray(1, 65535 - 13, nullptr);
    EXPECT_EQ(msg.GetDataSize(), 65535);
    CMsg2 again(0, 16);
    EXPECT_EQ(decode(again, encode(msg)), 65535);

    const std::string long_one =
        bytes({0, 0, 0, 0, 0, 2, 0, 0, 0, 9, 3, 0xFF, 0xFF}) + std::string(65535, 'x') + BYTE_ITEM;
    EXPECT_EQ(decode(again, long_one), 0);

    // What does not fit 16 bits is told by its true size alone and never written.
    msg.SetDwordArray(2, 65535, nullptr);
    msg.SetMsg(3, &msg);
    const unsigned long inner = 65535 + 7 + 65535 * 4;
    EXPECT_EQ(msg.GetTrueDataSize(), inner + 7 + inner);
    EXPECT_EQ(msg.GetDataSize(), (inner + 7 + inner) % 65536);
    char untouched = 'x';
    EXPECT_EQ(msg.GetData(&untouched), 0);
    EXPECT_EQ(untouched, 'x');
}

TEST(Wire, IsDocumented) {
    const struct {
        const char* capture;
        void (*build)(CMsg2&);
    } payloads[] = {
        {"write",
         [](CMsg2& m) {
             m.SetId(0x57524E49);
             m.SetByte(0x102 << 8 | 8, 0x41);
         }},
        {"read",
         [](CMsg2& m) {
             m.SetId(0x52454144);
             m.SetDword(0xFFFFFFFF, 7);
             m.SetQword(0xFFFFFFFC, 0x0102030405060708);
             m.SetByte(0x102 << 8 | 13, 0);
             m.SetByte(0x102 << 8 | 8, 0);
         }},
        {"indication",
         [](CMsg2& m) {
             m.SetId(0x494E4449);
             m.SetDword(0xFFFFFFFE, 7);
             m.SetByte(0x102 << 8 | 13, 1);
             m.SetByte(0x102 << 8 | 8, 0);
             m.SetByte(0xFFFFFFFD, 2);
             m.SetQword(0xFFFFFFFC, 0x0102030405060708);
         }},
        {"message",
         [](CMsg2& m) {
             m.SetId(0x5752494E);
             m.SetByte(0x102 << 8 | 7, 0x40);
             m.SetByte(0x102 << 8 | 4, 0x85);
         }},
    };
    const size_t header = 16;
    for (const auto& p : payloads) {
        SCOPED_TRACE(p.capture);
        const std::string packet = read_capture(p.capture);
        ASSERT_GT(packet.size(), header);
        EXPECT_EQ(packet[2], CMsg2::GetVer());
        CMsg2 built(16, 16), decoded(16, 16);
        p.build(built);
        EXPECT_EQ(packet.substr(header), encode(built));
        EXPECT_EQ(decode(decoded, packet.substr(header)), packet.size() - header);
        EXPECT_EQ(dump(decoded), dump(built));
    }
}

}  // namespace
