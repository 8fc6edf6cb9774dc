// The encoding of a message. Multi-byte numbers are most significant byte first; there is no
// padding.
//
//   message                                item
//   offset width                           offset width
//   0      4      identifier               0      4      tag
//   4      2      number of items          4      1      type code
//   6      ...    the items                5      ...    value
//
//   type             value
//   dword            4 bytes
//   byte             1 byte
//   word             2 bytes
//   qword            8 bytes
//   string           2: n, then n bytes, including the terminating NUL
//   byte array       2: n, then n bytes
//   word array       2: n, then n times 2 bytes
//   dword array      2: n, then n times 4 bytes
//   message          2: n, then n bytes: a message
//   any other        2: a count, nothing more
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "msg/Msg2.h"

const unsigned char rudp_msg2_ver = 2;

namespace {

const uint32_t MESSAGE_HEAD = 6;
const uint32_t ITEM_HEAD = 5;
const uint32_t COUNT_WIDTH = 2;
const uint32_t MAX_DATA = 0xFFFF;
const unsigned int NESTED_GROW_BY = 16;
const int NO_MEMORY = -1;

// The width of an item's number, 0 for an item with a count. Branches, not a table: the processor
// predicts them and goes on, but would have to wait for the table to know where the next item
// begins.
inline uint32_t s_GetNumberSize(uint8_t type) {
    if (type == CMsg2::ITEM_BYTE) {
        return sizeof(uint8_t);
    }
    if (type == CMsg2::ITEM_DWORD) {
        return sizeof(uint32_t);
    }
    if (type == CMsg2::ITEM_WORD) {
        return sizeof(uint16_t);
    }
    return type == CMsg2::ITEM_QWORD ? sizeof(uint64_t) : 0;
}

// The width of a counted element, by type; further types have none.
const uint32_t ELEMENT_SIZES[] = {0, 0, 1, 1, 2, 4, 1};

uint32_t s_GetElementSize(uint8_t type) {
    return type < sizeof ELEMENT_SIZES / sizeof *ELEMENT_SIZES ? ELEMENT_SIZES[type] : 0;
}

// The size of an item with as many elements as its count.
uint32_t s_GetItemSize(const CMsg2::Node& item) {
    const uint32_t number = s_GetNumberSize(item.m_nType);
    return ITEM_HEAD +
           (number > 0 ? number : COUNT_WIDTH + s_GetElementSize(item.m_nType) * item.m_nCount);
}

// Host to network order and back.
uint64_t htonll(uint64_t v) {
    if (htonl(1) == 1) {
        return v;
    }
    return static_cast<uint64_t>(htonl(static_cast<uint32_t>(v))) << 32 |
           htonl(static_cast<uint32_t>(v >> 32));
}

// Copies a value from data + pos, where pos <= len, and moves pos past it. False, with nothing
// changed, if the value would extend past len.
template <typename T>
bool s_Get(const char* data, uint32_t& pos, T& out, uint32_t len) {
    if (len - pos < sizeof out) {
        return false;
    }
    memcpy(&out, data + pos, sizeof out);
    pos += static_cast<uint32_t>(sizeof out);
    return true;
}

bool s_GetShort(const char* data, uint32_t& pos, uint16_t& out, uint32_t len) {
    if (!s_Get(data, pos, out, len)) {
        return false;
    }
    out = ntohs(out);
    return true;
}

bool s_GetLong(const char* data, uint32_t& pos, uint32_t& out, uint32_t len) {
    if (!s_Get(data, pos, out, len)) {
        return false;
    }
    out = ntohl(out);
    return true;
}

bool s_GetLongLong(const char* data, uint32_t& pos, uint64_t& out, uint32_t len) {
    if (!s_Get(data, pos, out, len)) {
        return false;
    }
    out = htonll(out);
    return true;
}

// Copies a value to buf + pos and moves pos past it. The caller has made sure of the room. A write
// through buf may alias any variable whose address is taken: the position stays in a register only
// as long as it is a local variable and everything called is inlined.
template <typename T>
void s_Set(char* buf, uint32_t& pos, T value) {
    memcpy(buf + pos, &value, sizeof value);
    pos += static_cast<uint32_t>(sizeof value);
}

void s_SetShort(char* buf, uint32_t& pos, uint16_t value) {
    s_Set(buf, pos, htons(value));
}

void s_SetLong(char* buf, uint32_t& pos, uint32_t value) {
    s_Set(buf, pos, htonl(value));
}

void s_SetLongLong(char* buf, uint32_t& pos, uint64_t value) {
    s_Set(buf, pos, htonll(value));
}

void s_SetBytes(char* buf, uint32_t& pos, const void* bytes, uint16_t count) {
    s_SetShort(buf, pos, count);
    if (count > 0) {
        memcpy(buf + pos, bytes, count);
        pos += count;
    }
}

void s_SetWords(char* buf, uint32_t& pos, const unsigned short* words, uint16_t count) {
    s_SetShort(buf, pos, count);
    for (unsigned int i = 0; i < count; ++i) {
        s_SetShort(buf, pos, words[i]);
    }
}

void s_SetDwords(char* buf, uint32_t& pos, const unsigned long* dwords, uint16_t count) {
    s_SetShort(buf, pos, count);
    for (unsigned int i = 0; i < count; ++i) {
        s_SetLong(buf, pos, static_cast<uint32_t>(dwords[i]));
    }
}

// Writes the value of an item that is not a message.
inline void s_SetValue(char* buf, uint32_t& pos, const CMsg2::Node& item) {
    const CMsg2::Node::Value& value = item.m_Value;
    switch (item.m_nType) {
        case CMsg2::ITEM_DWORD:
            s_SetLong(buf, pos, value.m_nDword);
            break;
        case CMsg2::ITEM_BYTE:
            s_Set(buf, pos, static_cast<uint8_t>(value.m_nDword));
            break;
        case CMsg2::ITEM_WORD:
            s_SetShort(buf, pos, static_cast<uint16_t>(value.m_nDword));
            break;
        case CMsg2::ITEM_QWORD:
            s_SetLongLong(buf, pos, value.m_nQword);
            break;
        case CMsg2::ITEM_STRING:
            s_SetBytes(buf, pos, value.m_pString, item.m_nCount);
            break;
        case CMsg2::ITEM_BYTE_ARRAY:
            s_SetBytes(buf, pos, value.m_pBytes, item.m_nCount);
            break;
        case CMsg2::ITEM_WORD_ARRAY:
            s_SetWords(buf, pos, value.m_pWords, item.m_nCount);
            break;
        case CMsg2::ITEM_DWORD_ARRAY:
            s_SetDwords(buf, pos, value.m_pDwords, item.m_nCount);
            break;
        default:
            s_SetShort(buf, pos, item.m_nCount);
            break;
    }
}

// Moves pos past an item by looking at its head alone: a nested message is skipped by its length.
// False if the item would extend past len.
inline bool s_SkipItem(const char* data, uint32_t& pos, uint32_t len) {
    if (len - pos < ITEM_HEAD) {
        return false;
    }
    const uint8_t type = static_cast<uint8_t>(data[pos + ITEM_HEAD - 1]);
    pos += ITEM_HEAD;
    uint32_t size = s_GetNumberSize(type);
    if (size == 0) {
        uint16_t count = 0;
        if (!s_GetShort(data, pos, count, len)) {
            return false;
        }
        size = s_GetElementSize(type) * count;
    }
    if (len - pos < size) {
        return false;
    }
    pos += size;
    return true;
}

// The position after that many items; 0 if they don't fit the data or the maximum size of a
// message.
uint32_t s_SkipItems(const char* data, uint32_t pos, unsigned int count, uint32_t len) {
    for (; count > 0; --count) {
        if (!s_SkipItem(data, pos, len)) {
            return 0;
        }
    }
    return pos <= MAX_DATA ? pos : 0;
}

// Copies len bytes of an array to newly allocated storage of room bytes, with zeros after the copy.
// Null if memory is short, as below.
template <typename T>
T* s_NewBytes(const char* data, uint32_t len, uint32_t room) {
    T* const bytes = new (std::nothrow) T[room]();
    if (bytes != nullptr) {
        memcpy(bytes, data, len);
    }
    return bytes;
}

unsigned short* s_NewWords(const char* data, uint32_t len) {
    unsigned short* const words = new (std::nothrow) unsigned short[len / sizeof(uint16_t)];
    uint32_t pos = 0;
    for (unsigned int i = 0; words != nullptr && pos < len; ++i) {
        s_GetShort(data, pos, words[i], len);
    }
    return words;
}

unsigned long* s_NewDwords(const char* data, uint32_t len) {
    unsigned long* const dwords = new (std::nothrow) unsigned long[len / sizeof(uint32_t)];
    uint32_t pos = 0;
    for (unsigned int i = 0; dwords != nullptr && pos < len; ++i) {
        uint32_t dword = 0;
        s_GetLong(data, pos, dword, len);
        dwords[i] = dword;
    }
    return dwords;
}

// Reads the elements of a slot, whose count is known, and moves pos past them; a message is created
// but not read. False if memory is short.
bool s_GetElements(const char* data, uint32_t& pos, CMsg2::Node& slot) {
    CMsg2::Node::Value& value = slot.m_Value;
    const char* const elements = data + pos;
    const uint32_t size = s_GetElementSize(slot.m_nType) * slot.m_nCount;
    pos += size;
    if (slot.m_nType == CMsg2::ITEM_MSG) {
        value.m_pMsg = new (std::nothrow) CMsg2(0, NESTED_GROW_BY);
        return value.m_pMsg != nullptr;
    }
    if (slot.m_nCount == 0) {
        return true;
    }
    switch (slot.m_nType) {
        case CMsg2::ITEM_STRING:
            // The text in memory ends with a NUL, whatever the peer sent.
            value.m_pString = s_NewBytes<char>(elements, size, size + 1);
            return value.m_pString != nullptr;
        case CMsg2::ITEM_BYTE_ARRAY:
            value.m_pBytes = s_NewBytes<unsigned char>(elements, size, size);
            return value.m_pBytes != nullptr;
        case CMsg2::ITEM_WORD_ARRAY:
            value.m_pWords = s_NewWords(elements, size);
            return value.m_pWords != nullptr;
        case CMsg2::ITEM_DWORD_ARRAY:
            value.m_pDwords = s_NewDwords(elements, size);
            return value.m_pDwords != nullptr;
        default:
            return true;
    }
}

// Reads an item into an empty slot and moves pos past it. The item is known to be within len; only
// allocation can fail.
inline bool s_GetItem(const char* data, uint32_t& pos, CMsg2::Node& slot, uint32_t len) {
    CMsg2::Node::Value& value = slot.m_Value;
    uint8_t byte = 0;
    uint16_t word = 0;
    s_GetLong(data, pos, slot.m_nTag, len);
    s_Get(data, pos, slot.m_nType, len);
    switch (slot.m_nType) {
        case CMsg2::ITEM_DWORD:
            return s_GetLong(data, pos, value.m_nDword, len);
        case CMsg2::ITEM_BYTE:
            s_Get(data, pos, byte, len);
            value.m_nDword = byte;
            return true;
        case CMsg2::ITEM_WORD:
            s_GetShort(data, pos, word, len);
            value.m_nDword = word;
            return true;
        case CMsg2::ITEM_QWORD:
            return s_GetLongLong(data, pos, value.m_nQword, len);
        default:
            s_GetShort(data, pos, slot.m_nCount, len);
            return s_GetElements(data, pos, slot);
    }
}

}  // namespace

unsigned char CMsg2::GetVer() {
    return rudp_msg2_ver & 0x7F;
}

unsigned short CMsg2::GetDataSize() const {
    return static_cast<unsigned short>(EncodedSize());
}

unsigned long CMsg2::GetTrueDataSize() const {
    const uint64_t size = EncodedSize();
    return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
}

uint64_t CMsg2::EncodedSize() const {
    uint64_t size = MESSAGE_HEAD;
    const Node* const end = m_pItems + m_nItemCount;
    for (const Node* item = m_pItems; item != end; ++item) {
        size += item->m_nType == ITEM_NONE ? 0 : s_GetItemSize(*item);
        if (item->m_nType == ITEM_MSG) {
            size += item->m_Value.m_pMsg->EncodedSize();
        }
    }
    return size;
}

unsigned short CMsg2::GetData(char* buf) const {
    if (EncodedSize() > MAX_DATA) {
        return 0;
    }
    return static_cast<unsigned short>(Encode(buf, 0));
}

// Encodes into buf from pos on, where there is enough room. Returns the position after it. Two
// fields are filled in afterwards: the number of items, because one without a type is neither
// written nor counted, and the length of a nested message, because computing it first would walk
// every message once for each level above it.
uint32_t CMsg2::Encode(char* buf, uint32_t pos) const {
    s_SetLong(buf, pos, m_nId);
    uint32_t count_pos = pos;
    uint16_t count = 0;
    s_SetShort(buf, pos, count);
    const Node* const end = m_pItems + m_nItemCount;
    for (const Node* item = m_pItems; item != end; ++item) {
        if (item->m_nType == ITEM_NONE) {
            continue;
        }
        ++count;
        s_SetLong(buf, pos, item->m_nTag);
        s_Set(buf, pos, item->m_nType);
        if (item->m_nType != ITEM_MSG) {
            s_SetValue(buf, pos, *item);
        } else {
            uint32_t length_pos = pos;
            pos = item->m_Value.m_pMsg->Encode(buf, pos + COUNT_WIDTH);
            s_SetShort(buf, length_pos, static_cast<uint16_t>(pos - length_pos - COUNT_WIDTH));
        }
    }
    s_SetShort(buf, count_pos, count);
    return pos;
}

CMsg2::CMsg2(const char* data, unsigned long len, unsigned int growBy) : m_nGrowBy(growBy) {
    SetData(data, len);
}

unsigned short CMsg2::SetData(const char* data, unsigned long len) {
    const int taken = Decode(data, static_cast<uint32_t>(len));
    return taken == NO_MEMORY ? 0 : static_cast<unsigned short>(taken);
}

// Decodes a message. Returns its size, 0 if the bytes are no message, or NO_MEMORY; in the last two
// cases the message is empty. It recurses for each level of nesting, so it has no locals whose
// address is taken: they would cost stack in every level.
int CMsg2::Decode(const char* data, uint32_t len) {
    const int taken = DecodeLevel(data, len);
    if (!HoldsMsg()) {
        return taken;
    }
    uint32_t pos = MESSAGE_HEAD;
    for (unsigned int i = 0; i < m_nItemCount; ++i) {
        Node& slot = m_pItems[i];
        const uint32_t size = s_GetItemSize(slot);
        if (slot.m_nType == ITEM_MSG) {
            // Undecodable bytes make an empty message.
            const uint32_t length = slot.m_nCount;
            slot.m_nCount = 0;
            if (slot.m_Value.m_pMsg->Decode(data + pos + size - length, length) == NO_MEMORY) {
                Empty();
                return NO_MEMORY;
            }
        }
        pos += size;
    }
    return taken;
}

// Decodes everything but the contents of nested messages: these stay empty, and the counts of their
// slots are their lengths. Allocates nothing before all items are known to be complete.
int CMsg2::DecodeLevel(const char* data, uint32_t len) {
    Empty();
    uint32_t pos = 0;
    uint16_t count = 0;
    if (!s_GetLong(data, pos, m_nId, len) || !s_GetShort(data, pos, count, len)) {
        return 0;
    }
    const uint32_t end = s_SkipItems(data, pos, count, len);
    if (end == 0) {
        return 0;
    }
    if (count > m_nCapacity && !Resize(count)) {
        return NO_MEMORY;
    }
    Node* slot = m_pItems;
    bool memory = true;
    for (const Node* const behind = slot + count; memory && slot != behind; ++slot) {
        memory = s_GetItem(data, pos, *slot, end);
    }
    m_nItemCount = static_cast<uint16_t>(slot - m_pItems);
    m_bDistinct = false;  // as far as is known
    if (!memory) {
        Empty();
        return NO_MEMORY;
    }
    return static_cast<int>(end);
}
