// Decodes a message, then encodes, copies and dumps the result.
#include <cstring>
#include <memory>
#include <set>
#include <string>

#include "fuzz/Check.h"
#include "msg/Message.h"
#include "msg/cmsgdump.h"

namespace {

// From and to blocks of the exact size, so that the sanitizer sees each access past an end.
unsigned short decode(CMsg2& msg, const char* data, size_t size) {
    const std::unique_ptr<char[]> block(new char[size]);
    memcpy(block.get(), data, size);
    return msg.SetData(block.get(), size);
}

// Empty when it would be too large.
std::string encode(const CMsg2& msg) {
    const unsigned long size = msg.GetTrueDataSize();
    CHECK(msg.GetDataSize() == (size & 0xFFFF));
    const std::unique_ptr<char[]> block(new char[size]);
    const unsigned short written = msg.GetData(block.get());
    CHECK(written == (size > 0xFFFF ? 0 : size));
    return std::string(block.get(), written);
}

std::string dump(const CMsg2& msg, int flags) {
    const std::unique_ptr<char[]> text(new char[MSG_TEXT_SIZE]);
    CHECK(Msg2String(&msg, 'M', text.get(), flags) == text.get());
    return text.get();
}

void check_encoding(const CMsg2& msg) {
    const std::string bytes = encode(msg);
    if (bytes.empty()) {
        return;  // each invalid nested message became one of six bytes
    }
    CMsg2 again(0, 0);
    CHECK(decode(again, bytes.data(), bytes.size()) == bytes.size());
    CHECK(encode(again) == bytes);
}

// Whether the setters could build the message: each tag once, no unknown type, no NUL inside a
// text.
bool is_plain(const CMsg2& msg) {
    std::set<uint32_t> tags;
    bool plain = true;
    for (unsigned int i = 0; i < msg.GetItemCount(); ++i) {
        const CMsg2::Node& item = *msg.GetItem(i);
        plain = plain && tags.insert(item.m_nTag).second && item.m_nType != CMsg2::ITEM_NONE &&
                item.m_nType <= CMsg2::ITEM_QWORD;
        if (item.m_nType == CMsg2::ITEM_STRING && item.m_nCount > 0) {
            plain = plain && strlen(item.m_Value.m_pString) + 1 == item.m_nCount;
        }
        plain = plain && (item.m_nType != CMsg2::ITEM_MSG || is_plain(*item.m_Value.m_pMsg));
    }
    return plain;
}

void check_copy(const CMsg2& msg) {
    CMessage copy(2, 2);
    copy.Copy(&msg);
    CHECK(copy.GetId() == msg.GetId());
    CHECK(copy.GetItemCount() <= msg.GetItemCount());
    CHECK(is_plain(copy));
    CHECK(!is_plain(msg) || encode(copy) == encode(msg));
    CMsg2 second(copy);
    CHECK(encode(second) == encode(copy));
    second += msg;
    CHECK(encode(second) == encode(copy));
}

// Every tag can be looked up and removed.
void check_items(CMsg2& msg) {
    unsigned long tag = 0;
    for (unsigned int i = 0; msg.GetItemTag(i, tag); ++i) {
        CHECK(msg.Exists(tag));
        const char* const text = msg.GetString(tag);
        CHECK(text == nullptr || strlen(text) <= msg.GetArrayCount(tag));
    }
    while (msg.GetItemTag(msg.GetItemCount() / 2u, tag)) {
        const unsigned int count = msg.GetItemCount();
        CHECK(msg.Remove(tag));
        CHECK(msg.GetItemCount() == count - 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* const bytes = reinterpret_cast<const char*>(data);
    CMsg2 msg(2, 2);
    const size_t taken = decode(msg, bytes, size);
    CHECK(taken <= size);
    if (taken == 0) {
        CHECK(msg.GetItemCount() == 0);
        return 0;
    }
    CMsg2 exact(0, 16);
    CHECK(decode(exact, bytes, taken) == taken);
    CHECK(encode(exact) == encode(msg));
    CHECK(decode(exact, bytes, taken - 1) == 0);
    for (int flags = 0; flags < 4; ++flags) {
        const std::string text = dump(msg, flags);
        CHECK(text.size() < MSG_TEXT_SIZE);
        CHECK(text.back() == ']' || text.size() == MSG_TEXT_SIZE - 1);
    }
    check_encoding(msg);
    check_copy(msg);
    check_items(msg);
    return 0;
}
