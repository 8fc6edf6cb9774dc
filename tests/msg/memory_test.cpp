// Memory and stack used by messages, with an allocator that counts and can fail.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "msg/Message.h"
#include "tests/msg/bytes.h"

namespace {

struct {
    size_t blocks = 0;
    size_t bytes = 0;
    size_t granted = SIZE_MAX;  // allocations until memory is short
} heap;

bool grant(size_t size) {
    if (heap.granted == 0) {
        return false;
    }
    --heap.granted;
    ++heap.blocks;
    heap.bytes += size;
    return true;
}

}  // namespace

// Messages use the forms that don't throw: only these are counted and can fail. The leak sanitizer
// finds leaks.
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return grant(size) ? operator new(size) : nullptr;
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return grant(size) ? operator new[](size) : nullptr;
}

namespace {

std::string word(size_t n) {
    return {static_cast<char>(n >> 8), static_cast<char>(n)};
}

// A message with that many copies of the item.
std::string repeat(const std::string& item, size_t times) {
    std::string all = Hex("00000000") + word(times);
    for (; times > 0; --times) {
        all += item;
    }
    return all;
}

// Messages nested to that many levels.
std::string nest(size_t levels) {
    std::string all;
    for (; levels > 0; --levels) {
        all += Hex("00000000 0001 00000001 06") + word(6 + 13 * (levels - 1));
    }
    return all + Hex("00000000 0000");
}

const size_t MAX_LEVELS = (65535 - 6) / 13;

TEST(Memory, IsProportionalToTheBytesReceived) {
    const std::string byte_item = Hex("00000001 07 01");
    const struct {
        std::string data;
        bool good;
        size_t blocks;
    } rows[] = {
        {repeat(byte_item, 10921), true, 1},
        {repeat(Hex("00000001 02 0001 78"), 8191), true, 8192},  // texts
        {repeat(Hex("00000001 06 0000"), 9361), true, 9362},     // nested messages
        {nest(MAX_LEVELS), true, 2 * MAX_LEVELS},
        {Hex("00000000 FFFF"), false, 0},
        {repeat(byte_item, 10921).substr(0, 65531), false, 0},
        {Hex("00000000 0001 00000001 05 FFFF 00000001"), false, 0},
        {repeat(Hex("00000001 06 0006 00000000 FFFF"), 5040), true, 5041},
    };
    for (const auto& row : rows) {
        CMsg2 msg(0, 16);
        heap.blocks = heap.bytes = 0;
        EXPECT_EQ(decode(msg, row.data), row.good ? row.data.size() : 0);
        EXPECT_EQ(heap.blocks, row.blocks);
        EXPECT_LE(heap.bytes, 9 * row.data.size());
    }
}

// A failed change leaves the message unchanged.
void expect_all_or_nothing(CMsg2& msg, const std::function<bool()>& change) {
    const std::string before = dump(msg);
    if (!change()) {
        EXPECT_EQ(dump(msg), before);
    }
}

void use_every_allocation() {
    CMsg2 msg(1, 1), sub(2, 2), other(1, 1);
    sub.SetString(1, "one");
    sub.SetWordArray(2, 3, nullptr);
    for (unsigned int tag : {1u, 2u, 1u}) {  // appended, appended by growing, replaced
        expect_all_or_nothing(msg, [&] { return msg.SetString(tag, "text"); });
        expect_all_or_nothing(msg, [&] { return msg.SetDwordArray(tag, 2, nullptr); });
        expect_all_or_nothing(msg, [&] { return msg.SetMsg(tag, &sub); });
    }
    const std::string whole = dump(msg), data = encode(msg);
    const CMsg2 copy(msg);
    EXPECT_TRUE(dump(copy) == whole || dump(copy) == "[ ]") << dump(copy);
    CMessage from(0, 0), to(0, 0);
    from.SetRoutingInfo1(1, 2, 3, 4);
    const bool copied = from.Copy(&msg);
    to.Copy(from);
    EXPECT_TRUE(to.GetHost() == 0 ? dump(to) == "[ ]" : dump(to) == dump(from));
    EXPECT_EQ(dump(from), copied ? whole : "[ ]");
    other += msg;
    const bool decoded = decode(other, data) == data.size();
    EXPECT_EQ(dump(other), decoded ? whole : "[ ]");
}

TEST(Memory, MayBeShortAnywhere) {
    size_t blocks = 0;
    for (bool failed = true; failed; ++blocks) {
        heap.granted = blocks;
        use_every_allocation();
        failed = heap.granted == 0;
        heap.granted = SIZE_MAX;
    }
    EXPECT_GT(blocks, 20u);
}

TEST(Memory, SufficesForDeepMessages) {
    const std::string data = nest(MAX_LEVELS);
    CMsg2 msg(0, 16);
    EXPECT_EQ(decode(msg, data), data.size());
    EXPECT_EQ(encode(msg), data);
    CMsg2 copy(msg);
    EXPECT_EQ(encode(copy), data);
    EXPECT_EQ(dump(copy).size(), MSG_TEXT_SIZE - 1);
    copy += *copy.GetMsg(1);
    EXPECT_EQ(copy.GetDataSize(), data.size() - 13);
}

}  // namespace
