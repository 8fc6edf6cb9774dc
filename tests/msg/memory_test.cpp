// What messages cost in memory and stack, with an allocator that counts and can fail.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "tests/msg/bytes.h"

namespace {

// Messages use the forms of new that don't throw: only these are counted and can fail.
struct {
    size_t blocks = 0;
    size_t bytes = 0;
    size_t granted = SIZE_MAX;  // blocks until memory is short
    size_t live = 0;            // blocks of all forms
} heap;

void* allocate(size_t size) {
    ++heap.live;
    return malloc(size == 0 ? 1 : size);
}

void* try_allocate(size_t size) {
    if (heap.granted == 0) {
        return nullptr;
    }
    --heap.granted;
    ++heap.blocks;
    heap.bytes += size;
    return allocate(size);
}

void release(void* block) {
    heap.live -= block == nullptr ? 0 : 1;
    free(block);
}

}  // namespace

void* operator new(size_t size) {
    return allocate(size);
}
void* operator new[](size_t size) {
    return allocate(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return try_allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return try_allocate(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, size_t) noexcept {
    release(block);
}
void operator delete[](void* block, size_t) noexcept {
    release(block);
}

namespace {

std::string repeat(const std::string& item, unsigned int times) {
    std::string all = bytes({0, 0, 0, 0, static_cast<int>(times >> 8), static_cast<int>(times)});
    for (; times > 0; --times) {
        all += item;
    }
    return all;
}

// A message in a message, so many times.
std::string nest(unsigned int levels) {
    std::string all;
    for (size_t inner = 6 + 13 * (levels - 1); levels > 0; --levels, inner -= 13) {
        all += bytes({0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 6, static_cast<int>(inner >> 8),
                      static_cast<int>(inner)});
    }
    return all + bytes({0, 0, 0, 0, 0, 0});
}

const unsigned int MAX_LEVELS = (65535 - 6) / 13;

TEST(Memory, IsProportionalToTheBytesReceived) {
    const struct {
        const char* name;
        std::string data;
        bool good;
        size_t blocks;
    } rows[] = {
        {"many items", repeat(bytes({0, 0, 0, 1, 7, 1}), 10921), true, 1},
        {"many texts", repeat(bytes({0, 0, 0, 1, 2, 0, 1, 'x'}), 8191), true, 8192},
        {"many nested messages", repeat(bytes({0, 0, 0, 1, 6, 0, 0}), 9361), true, 9362},
        {"many levels", nest(MAX_LEVELS), true, 2 * MAX_LEVELS},
        {"items announced", bytes({0, 0, 0, 0, 0xFF, 0xFF}), false, 0},
        {"items announced, one missing", repeat(bytes({0, 0, 0, 1, 7, 1}), 10921).substr(0, 65531),
         false, 0},
        {"elements announced", bytes({0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 5, 0xFF, 0xFF, 0, 0, 0, 1}),
         false, 0},
        {"items announced in nested messages",
         repeat(bytes({0, 0, 0, 1, 6, 0, 6, 0, 0, 0, 0, 0xFF, 0xFF}), 5040), true, 5041},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CMsg2 msg(0, 16);
        heap.blocks = heap.bytes = 0;
        EXPECT_EQ(decode(msg, row.data), row.good ? row.data.size() : 0);
        EXPECT_EQ(heap.blocks, row.blocks);
        EXPECT_LE(heap.bytes, 9 * row.data.size());
    }
}

TEST(Memory, IsNotUsedForNumbers) {
    CMsg2 msg(16, 16);
    heap.blocks = 0;
    for (int round = 0; round < 2; ++round) {
        for (unsigned int tag = 0; tag < 16; ++tag) {
            EXPECT_TRUE(msg.SetDword(tag, tag) && msg.SetQword(tag, tag));
            EXPECT_EQ(msg.GetQword(tag), tag);
        }
        msg.Empty();
    }
    EXPECT_EQ(heap.blocks, 0u);
}

// A change that fails leaves the message as it was.
void expect_all_or_nothing(CMsg2& msg, const std::function<bool()>& change) {
    const std::string before = dump(msg);
    if (!change()) {
        EXPECT_EQ(dump(msg), before);
    }
}

void use_every_allocation() {
    CMsg2 msg(1, 1), sub(2, 2);
    sub.SetString(1, "one");
    sub.SetWordArray(2, 3, nullptr);
    for (unsigned int tag : {1u, 2u, 1u}) {  // appended, appended by growing, replaced
        expect_all_or_nothing(msg, [&] { return msg.SetByte(tag, 7); });
        expect_all_or_nothing(msg, [&] { return msg.SetString(tag, "text"); });
        expect_all_or_nothing(msg, [&] { return msg.SetByteArray(tag, 2, nullptr); });
        expect_all_or_nothing(msg, [&] { return msg.SetDwordArray(tag, 2, nullptr); });
        expect_all_or_nothing(msg, [&] { return msg.SetMsg(tag, &sub); });
    }
    const std::string whole = dump(msg);
    CMsg2 copy(msg), other(1, 1);
    const std::string copied = dump(copy);
    EXPECT_TRUE(copied == whole || copied == "[ ]") << copied;
    other += msg;
    const std::string data = encode(msg);
    const unsigned short taken = decode(other, data);
    EXPECT_TRUE(taken == 0 || (taken == data.size() && encode(other) == data));
    EXPECT_EQ(dump(other), taken == 0 ? "[ ]" : whole);
}

TEST(Memory, MayBeShortAnywhere) {
    size_t failures = 0;
    for (bool failed = true; failed; ++failures) {
        const size_t live = heap.live;
        heap.granted = failures;
        use_every_allocation();
        failed = heap.granted == 0;
        heap.granted = SIZE_MAX;
        EXPECT_EQ(heap.live, live);
    }
    EXPECT_GT(failures, 30u);
}

void* use_deep_message(void*) {
    const std::string data = nest(MAX_LEVELS);
    CMsg2 msg(0, 16);
    EXPECT_EQ(decode(msg, data), data.size());
    EXPECT_EQ(msg.GetDataSize(), data.size());
    CMsg2 copy(msg);
    msg.Empty();
    EXPECT_EQ(encode(copy), data);
    EXPECT_EQ(dump(copy).size(), MSG_TEXT_SIZE - 1);
    EXPECT_TRUE(copy.SetMsg(2, copy.GetMsg(1)));
    copy += *copy.GetMsg(2);
    return nullptr;
}

// On a stack of 8 MiB, whatever the shell that runs the test has set.
TEST(Memory, SufficesForDeepMessages) {
    pthread_attr_t attr;
    pthread_t thread;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 8 << 20), 0);
    ASSERT_EQ(pthread_create(&thread, &attr, use_deep_message, nullptr), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attr);
}

}  // namespace
