#include <gtest/gtest.h>

#include <string>

#include "msg/Message.h"
#include "tests/msg/bytes.h"

namespace {

const unsigned long MINUS_ONE = static_cast<unsigned long>(-1);

TEST(Container, KeepsPlaceAndOrder) {
    CMsg2 msg(2, 3);
    for (unsigned char tag = 1; tag <= 6; ++tag) {
        EXPECT_TRUE(msg.SetByte(tag, tag));
    }
    EXPECT_FALSE(msg.Remove(7));
    EXPECT_TRUE(msg.SetString(3, "ab") && msg.Remove(5) && msg.Remove(6) && msg.Remove(1));
    EXPECT_EQ(dump(msg), "[ 00000002=02,00000003='ab',00000004=04]");
    msg.SetId(MINUS_ONE);
    msg.Empty();
    EXPECT_FALSE(msg.Exists(2));
    EXPECT_EQ(msg.GetId(), 0xFFFFFFFFu);
}

const struct {
    bool (*set)(CMsg2&);
    unsigned char type;
    unsigned short count;
    unsigned long number;
    const char* getters;  // those that return a value
} TYPES[] = {
    {[](CMsg2& m) { return m.SetDword(1, MINUS_ONE); }, 1, 0, 0xFFFFFFFF, "dword "},
    {[](CMsg2& m) { return m.SetString(1, "ab"); }, 2, 3, 0, "string "},
    {[](CMsg2& m) { return m.SetByteArray(1, 0x10002, nullptr); }, 3, 2, 0, "bytes item "},
    {[](CMsg2& m) { return m.SetWordArray(1, 2, nullptr); }, 4, 2, 0, "words item "},
    {[](CMsg2& m) { return m.SetDwordArray(1, 2, nullptr); }, 5, 2, 0, "dwords item "},
    {[](CMsg2& m) { return m.SetMsg(1, &m); }, 6, 0, 0, "msg "},
    {[](CMsg2& m) { return m.SetByte(1, 0x85); }, 7, 0, 0x85, "bool byte "},
    {[](CMsg2& m) { return m.SetBool(1, true); }, 7, 0, 1, "bool byte "},
    {[](CMsg2& m) { return m.SetWord(1, 0x8585); }, 8, 0, 0x8585, "word "},
    {[](CMsg2& m) { return m.SetQword(1, 0x100000000); }, 9, 0, 0, "qword "},
};

TEST(Container, ReadsNothingButItsOwnType) {
    CMsg2 msg(1, 0);
    for (const auto& row : TYPES) {
        ASSERT_TRUE(row.set(msg)) << row.getters;
        EXPECT_EQ(msg.GetItemType(1), row.type);
        EXPECT_EQ(msg.GetItem(msg.GetItemCount()), nullptr);
        EXPECT_EQ(msg.GetArrayCount(1), row.count);
        EXPECT_EQ(msg.GetNumber(1), row.number);
        std::string getters;
        getters += msg.GetBool(1) ? "bool " : "";
        getters += msg.GetByte(1) != 0 ? "byte " : "";
        getters += msg.GetWord(1) != 0 ? "word " : "";
        getters += msg.GetDword(1) != 0 ? "dword " : "";
        getters += msg.GetQword(1) != 0 ? "qword " : "";
        getters += msg.GetString(1) != nullptr ? "string " : "";
        getters += msg.GetByteArray(1) != nullptr ? "bytes " : "";
        getters += msg.GetWordArray(1) != nullptr ? "words " : "";
        getters += msg.GetDwordArray(1) != nullptr ? "dwords " : "";
        getters += msg.GetMsg(1) != nullptr ? "msg " : "";
        getters += msg.SetByteArrayItem(1, 1, 7) ? "item " : "";
        getters += msg.SetWordArrayItem(1, 1, 7) ? "item " : "";
        getters += msg.SetDwordArrayItem(1, 1, MINUS_ONE) ? "item " : "";
        EXPECT_EQ(getters, row.getters);
        EXPECT_FALSE(msg.SetByteArrayItem(1, 2, 7) || msg.SetWordArrayItem(1, 2, 7) ||
                     msg.SetDwordArrayItem(1, 2, 7));
        if (getters == "bytes item ") {
            EXPECT_EQ(msg.GetByteArray(1)[1], 7);
        } else if (getters == "words item ") {
            EXPECT_EQ(msg.GetWordArray(1)[1], 7);
        } else if (getters == "dwords item ") {
            EXPECT_EQ(msg.GetDwordArray(1)[1], 0xFFFFFFFFu);
        }
    }
    EXPECT_EQ(msg.GetItemType(2) + msg.GetArrayCount(2) + msg.GetNumber(2) + msg.GetByte(2) +
                  msg.GetWord(2) + msg.GetDword(2) + msg.GetQword(2),
              0u)
        << "no item";
    EXPECT_EQ(msg.GetString(2), nullptr);
    EXPECT_TRUE(msg.SetWordArray(1, 0, nullptr) && msg.GetWordArray(1) != nullptr);
}

TEST(Container, RefusesWhatDoesNotFit) {
    CMsg2 full(2, 0);
    full.SetByte(1, 1);
    full.SetByte(MINUS_ONE, 2);
    const std::string before = dump(full);
    const std::string text(65535, 'x');
    EXPECT_FALSE(full.SetByte(3, 3) || full.SetString(3, "ab") || full.SetMsg(3, &full));
    EXPECT_FALSE(full.SetMsg(1, nullptr) || full.SetString(1, text.c_str()));
    EXPECT_EQ(dump(full), before);
    EXPECT_TRUE(full.SetDword(0xFFFFFFFF, 5));  // an existing tag
    EXPECT_TRUE(full.SetString(1, text.c_str() + 1));
    EXPECT_EQ(full.GetArrayCount(1), 65535);

    CMsg2 more(1, 1);
    more.SetByte(3, 3);
    more.SetByte(1, 9);
    full += more;
    EXPECT_EQ(dump(full), "[ 00000001=09,FFFFFFFF=00000005]");

    CMsg2 wraps(1, 0xFFFFFFFF);
    EXPECT_TRUE(wraps.SetByte(1, 0));
    EXPECT_FALSE(wraps.SetByte(2, 0));
}

TEST(Container, HoldsNoMoreThan65535Items) {
#ifndef __OPTIMIZE__
    GTEST_SKIP() << "every new tag is compared with all others: too slow without optimisation";
#endif
    CMsg2 msg(16, 16384);
    for (unsigned long tag = 0; tag < 65535; ++tag) {
        ASSERT_TRUE(msg.SetByte(tag, 1));
    }
    EXPECT_FALSE(msg.SetByte(65535, 1));
    EXPECT_TRUE(msg.SetByte(65534, 2));
}

// Repeated tags reveal the cursor: a search begins where the last one ended.
TEST(Container, SearchesFromTheCursor) {
    CMsg2 msg(0, 16);
    decode(msg, Hex("00000000 0005 00000001 07 01 00000002 07 02 00000001 07 03 00000003 07 04"
                    "00000002 07 05"));
    EXPECT_EQ(msg.GetByte(1), 1);
    EXPECT_EQ(msg.GetByte(3), 4);
    EXPECT_EQ(msg.GetByte(2), 5);
    EXPECT_EQ(msg.GetByte(1), 1);  // wraps around the end
    EXPECT_EQ(msg.GetByte(2), 2);
    EXPECT_EQ(msg.GetByte(9), 0);  // a miss leaves the cursor where it was
    EXPECT_EQ(msg.GetByte(1), 3);
    EXPECT_TRUE(msg.Remove(1));  // the cursor is at the item that moved up
    EXPECT_EQ(msg.GetByte(2), 5);
    EXPECT_EQ(dump(msg), "[ 00000001=01,00000002=02,00000003=04,00000002=05]");
    CMsg2 copy(msg);  // the last value in the first place
    EXPECT_EQ(dump(copy), "[ 00000001=01,00000002=05,00000003=04]");
}

// What is merged, and where the cursor is left, does not depend on what else the message holds.
TEST(Container, MergesRepeatedTagsAlike) {
    const std::string repeated = Hex("00000000 0003 00000001 07 01 00000002 07 02 00000001 07 03");
    CMsg2 sub(1, 1), plain(0, 16), nested(0, 16), same(0, 16), outer(1, 1);
    sub.SetByte(7, 7);
    decode(same, repeated);
    for (CMsg2* msg : {&plain, &nested}) {
        decode(*msg, repeated);
        msg->SetMsg(9, &sub);
    }
    plain.SetByte(9, 0);
    plain += same;
    nested += same;
    nested.SetByte(9, 0);
    EXPECT_EQ(dump(nested), dump(plain));
    EXPECT_EQ(dump(plain), "[ 00000001=01,00000002=02,00000001=03,00000009=00]");
    EXPECT_EQ(same.GetByte(2) + same.GetByte(1), 5);  // the cursor is at the last item
    same += static_cast<const CMsg2&>(same);
    EXPECT_EQ(dump(same), "[ 00000001=01,00000002=02,00000001=01]") << "each step reads anew";

    decode(outer, Hex("00000000 0002 00000001 07 09 00000006 06 0018") + repeated);
    outer += *outer.GetMsg(6);
    EXPECT_EQ(dump(outer),
              "[ 00000001=03,00000006=DGRM [ 00000001=01,00000002=02,00000001=03],"
              "00000002=02]");

    decode(plain, repeated);
    EXPECT_EQ(plain.GetByte(2), 2);
    plain = CMsg2(16, 16);
    decode(plain, repeated);
    EXPECT_EQ(plain.GetByte(1), 3) << "an assignment leaves the cursor";
}

TEST(Container, MergesAndCopies) {
    CMsg2 sub(1, 1), a(1, 1), b(2, 0);
    sub.SetByte(7, 7);
    a.SetId(0x41000000);
    a.SetByte(1, 1);
    a.SetMsg(2, &sub);
    b.SetId(0x42000000);
    b.SetString(2, "b");
    b.SetWordArray(3, 1, nullptr);
    a += b;
    a.SetMsg(1, &sub);
    b = a;
    a.Empty();
    EXPECT_EQ(dump(b), "[A 00000001=DGRM [ 00000007=07],00000002='b',00000003={0000}]");
    EXPECT_TRUE(b.SetByte(4, 4));  // grows now, as a does
    b.Copy(nullptr);
    EXPECT_EQ(b.GetItemCount(), 4);
    decode(b, Hex("00000000 0002 00000009 0C 0005 00000008 07 06"));
    a += b;
    EXPECT_EQ(dump(a), "[A 00000008=06]");  // an item without a value is not copied
}

TEST(Container, AcceptsPointersIntoItself) {
    const unsigned long dwords[] = {1, 2};
    CMsg2 msg(16, 16), sub(16, 16);
    sub.SetId(0x53000000);
    sub.SetByte(3, 3);
    sub.SetMsg(4, &sub);
    sub.SetByte(5, 5);
    msg.SetString(1, "abc");
    msg.SetDwordArray(2, 2, dwords);
    msg.SetMsg(4, &sub);
    EXPECT_TRUE(msg.SetString(1, msg.GetString(1) + 1));
    EXPECT_TRUE(msg.SetDwordArray(2, 1, msg.GetDwordArray(2) + 1));
    CMsg2& same = msg;
    msg = same;
    msg += same;
    EXPECT_EQ(dump(msg),
              "[ 00000001='bc',00000002={00000002},00000004=DGRM [S 00000003=03,"
              "00000004=DGRM [S 00000003=03],00000005=05]]");

    msg += *msg.GetMsg(4);  // replaces the message that it reads
    EXPECT_EQ(dump(msg),
              "[ 00000001='bc',00000002={00000002},00000004=DGRM [S 00000003=03],"
              "00000003=03,00000005=05]");
    EXPECT_TRUE(msg.SetMsg(4, msg.GetMsg(4)) && msg.SetMsg(6, &msg));
    msg = *msg.GetMsg(6)->GetMsg(4);
    EXPECT_EQ(dump(msg), "[S 00000003=03]");
}

TEST(Container, NamesTags) {
    EXPECT_EQ(CMsg2::GetTag("A", 5), 0x41303035u);
    EXPECT_EQ(CMsg2::GetTag(nullptr, 9999), 0x39393939u);
    EXPECT_EQ(CMsg2::GetTag("", 10000) + CMsg2::GetTag("AB", 100) + CMsg2::GetTag("ABCD", 0), 0u);
    EXPECT_EQ(CMsg2::GetTag("IN"), 0x494E0000u);
    EXPECT_EQ(CMsg2::GetTag("\xFFNDIX"), 0xFF4E4449u);
    EXPECT_EQ(CMsg2::GetTag(nullptr) + CMsg2::GetTag(""), 0u);

    char name[5];
    unsigned long tag = 0;
    CMsg2 msg(1, 0);
    msg.SetByte(0x7E20807F, 0);
    EXPECT_TRUE(msg.GetItemName(0, name) && msg.GetItemTag(0, tag));
    EXPECT_STREQ(name, "~ ");
    EXPECT_STREQ(CMsg2::GetName(tag, name), "~ \x80\x7F");
    EXPECT_FALSE(msg.GetItemName(1, name) || msg.GetItemTag(1, tag));
}

TEST(Message, CopiesAllButItsDelivery) {
    CMessage from(16, 16), to(16, 16);
    from.SetRoutingInfo1(MINUS_ONE, 2055, 7, MINUS_ONE);
    from.SetRel(false);
    from.SetMsgType('M');
    from.SetByte(1, 1);
    to = from;
    EXPECT_EQ(dump(to), dump(from));
    EXPECT_EQ(to.GetHost() & to.GetLockTID(), 0xFFFFFFFFu);
    EXPECT_EQ(to.GetPort() - to.GetLockID(), 2055 - 7);
    EXPECT_TRUE(to.GetRel());
    EXPECT_EQ(to.GetMsgType(), 0);
}

}  // namespace
