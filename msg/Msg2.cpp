#include "msg/Msg2.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

const unsigned int MAX_COUNT = 0xFFFF;  // items of a message, elements of an array, bytes of a text
const unsigned int TAG_CHARS = 4;

// Makes array an owned copy of n elements, or n zeros without a source. False if memory is short.
template <typename T>
bool copy_array(T*& array, unsigned int n, const T* source) {
    array = new (std::nothrow) T[n]();
    if (array != nullptr && source != nullptr) {
        std::copy(source, source + n, array);
    }
    return array != nullptr;
}

// Up to four characters of text, each shifted in from the right; 0 for null.
uint32_t pack_chars(const char* text, unsigned int& count) {
    uint32_t chars = 0;
    for (count = 0; text != nullptr && count < TAG_CHARS && text[count] != '\0'; ++count) {
        chars = chars << 8 | static_cast<unsigned char>(text[count]);
    }
    return chars;
}

}  // namespace

static_assert(sizeof(CMsg2::Node) == 16, "a slot is packed without gaps");

void CMsg2::Node::DeleteValue() {
    // Only the type code says what is owned: half of a pointer may be 0.
    switch (m_nType) {
        case ITEM_STRING:
            delete[] m_Value.m_pString;
            break;
        case ITEM_BYTE_ARRAY:
            delete[] m_Value.m_pBytes;
            break;
        case ITEM_WORD_ARRAY:
            delete[] m_Value.m_pWords;
            break;
        case ITEM_DWORD_ARRAY:
            delete[] m_Value.m_pDwords;
            break;
        case ITEM_MSG:
            delete m_Value.m_pMsg;
            break;
        default:
            break;
    }
    m_nType = ITEM_NONE;
    m_nCount = 0;
    m_Value.m_nQword = 0;
}

bool CMsg2::Node::MakeString(const char* s) {
    const size_t size = s == nullptr ? 0 : strlen(s) + 1;
    if (size > MAX_COUNT) {
        return false;
    }
    *this = Node(ITEM_STRING, static_cast<unsigned int>(size));
    return s == nullptr || copy_array(m_Value.m_pString, m_nCount, s);
}

bool CMsg2::Node::MakeArray(const unsigned char* p) {
    return copy_array(m_Value.m_pBytes, m_nCount, p);
}

bool CMsg2::Node::MakeArray(const unsigned short* p) {
    return copy_array(m_Value.m_pWords, m_nCount, p);
}

bool CMsg2::Node::MakeArray(const unsigned long* p) {
    if (!copy_array(m_Value.m_pDwords, m_nCount, p)) {
        return false;
    }
    for (unsigned int i = 0; i < m_nCount; ++i) {
        m_Value.m_pDwords[i] = static_cast<uint32_t>(m_Value.m_pDwords[i]);
    }
    return true;
}

bool CMsg2::Node::MakeMsg(const CMsg2& m) {
    *this = Node(ITEM_MSG, 0);
    m_Value.m_pMsg = Clone(m);
    return m_Value.m_pMsg != nullptr;
}

CMsg2::CMsg2(unsigned int size, unsigned int growBy) : m_nGrowBy(growBy) {
    if (size > 0) {
        Resize(size);
    }
}

CMsg2::~CMsg2() {
    Empty();
    delete[] m_pItems;
}

void CMsg2::Empty() {
    for (unsigned int i = 0; i < m_nItemCount; ++i) {
        m_pItems[i].DeleteValue();
        m_pItems[i].m_nTag = 0;
    }
    m_nItemCount = 0;
    m_bDistinct = true;
}

bool CMsg2::Remove(unsigned long tag) {
    Node* const slot = FindItem(tag);
    if (slot == nullptr) {
        return false;
    }
    slot->DeleteValue();
    Node* const end = m_pItems + m_nItemCount;
    std::copy(slot + 1, end, slot);
    end[-1] = Node();
    --m_nItemCount;
    return true;
}

const CMsg2::Node* CMsg2::GetItem(unsigned int index) const {
    return index < m_nItemCount ? &m_pItems[index] : nullptr;
}

bool CMsg2::GetItemTag(unsigned int index, unsigned long& tag) const {
    if (index >= m_nItemCount) {
        return false;
    }
    tag = m_pItems[index].m_nTag;
    return true;
}

bool CMsg2::GetItemName(unsigned int index, char* buf) const {
    if (index >= m_nItemCount) {
        return false;
    }
    GetName(m_pItems[index].m_nTag, buf);
    while (*buf >= ' ' && *buf <= '~') {
        ++buf;
    }
    *buf = '\0';
    return true;
}

CMsg2::Node* CMsg2::FindItem(unsigned long tag) {
    const uint32_t wanted = static_cast<uint32_t>(tag);
    if (m_nItemCount == 0) {
        return nullptr;
    }
    if (m_nCursor >= m_nItemCount) {
        m_nCursor = 0;
    }
    const uint32_t start = m_nCursor;
    do {
        if (m_pItems[m_nCursor].m_nTag == wanted) {
            return &m_pItems[m_nCursor];
        }
        if (++m_nCursor == m_nItemCount) {
            m_nCursor = 0;
        }
    } while (m_nCursor != start);
    return nullptr;
}

unsigned char CMsg2::GetItemType(unsigned long tag) {
    const Node* const item = FindItem(tag);
    return item == nullptr ? static_cast<unsigned char>(ITEM_NONE) : item->m_nType;
}

unsigned short CMsg2::GetArrayCount(unsigned long tag) {
    const Node* const item = FindItem(tag);
    return item == nullptr ? 0 : item->m_nCount;
}

unsigned long CMsg2::GetNumber(unsigned long tag) {
    const Node* const item = FindItem(tag);
    if (item == nullptr) {
        return 0;
    }
    switch (item->m_nType) {
        case ITEM_BYTE:
        case ITEM_WORD:
        case ITEM_DWORD:
            return item->m_Value.m_nDword;
        default:
            return 0;
    }
}

unsigned char CMsg2::GetByte(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_BYTE);
    return item == nullptr ? 0 : static_cast<unsigned char>(item->m_Value.m_nDword);
}

unsigned short CMsg2::GetWord(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_WORD);
    return item == nullptr ? 0 : static_cast<unsigned short>(item->m_Value.m_nDword);
}

unsigned long CMsg2::GetDword(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_DWORD);
    return item == nullptr ? 0 : item->m_Value.m_nDword;
}

unsigned long long CMsg2::GetQword(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_QWORD);
    return item == nullptr ? 0 : item->m_Value.m_nQword;
}

char* CMsg2::GetString(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_STRING);
    return item == nullptr ? nullptr : item->m_Value.m_pString;
}

unsigned char* CMsg2::GetByteArray(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_BYTE_ARRAY);
    return item == nullptr ? nullptr : item->m_Value.m_pBytes;
}

unsigned short* CMsg2::GetWordArray(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_WORD_ARRAY);
    return item == nullptr ? nullptr : item->m_Value.m_pWords;
}

unsigned long* CMsg2::GetDwordArray(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_DWORD_ARRAY);
    return item == nullptr ? nullptr : item->m_Value.m_pDwords;
}

CMsg2* CMsg2::GetMsg(unsigned long tag) {
    const Node* const item = FindItem(tag, ITEM_MSG);
    return item == nullptr ? nullptr : item->m_Value.m_pMsg;
}

bool CMsg2::SetByte(unsigned long tag, unsigned char v) {
    return StoreNumber(tag, ITEM_BYTE, v);
}

bool CMsg2::AddByte(unsigned long tag, unsigned char v) {
    Node item(ITEM_BYTE, 0);
    item.m_Value.m_nDword = v;
    return Append(tag, item);
}

bool CMsg2::SetWord(unsigned long tag, unsigned short v) {
    return StoreNumber(tag, ITEM_WORD, v);
}

bool CMsg2::SetDword(unsigned long tag, unsigned long v) {
    return StoreNumber(tag, ITEM_DWORD, static_cast<uint32_t>(v));
}

bool CMsg2::SetQword(unsigned long tag, unsigned long long v) {
    Node item(ITEM_QWORD, 0);
    item.m_Value.m_nQword = v;
    return Store(tag, item);
}

bool CMsg2::SetString(unsigned long tag, const char* s) {
    Node item;
    return item.MakeString(s) && Store(tag, item);
}

bool CMsg2::SetByteArray(unsigned long tag, unsigned int n, const unsigned char* p) {
    Node item(ITEM_BYTE_ARRAY, n);
    return item.MakeArray(p) && Store(tag, item);
}

bool CMsg2::SetWordArray(unsigned long tag, unsigned int n, const unsigned short* p) {
    Node item(ITEM_WORD_ARRAY, n);
    return item.MakeArray(p) && Store(tag, item);
}

bool CMsg2::SetDwordArray(unsigned long tag, unsigned int n, const unsigned long* p) {
    Node item(ITEM_DWORD_ARRAY, n);
    return item.MakeArray(p) && Store(tag, item);
}

bool CMsg2::SetMsg(unsigned long tag, const CMsg2* m) {
    Node item;
    return m != nullptr && item.MakeMsg(*m) && Store(tag, item);
}

bool CMsg2::SetByteArrayItem(unsigned long tag, unsigned int index, unsigned char v) {
    const Node* const item = FindElement(tag, ITEM_BYTE_ARRAY, index);
    if (item == nullptr) {
        return false;
    }
    item->m_Value.m_pBytes[index] = v;
    return true;
}

bool CMsg2::SetWordArrayItem(unsigned long tag, unsigned int index, unsigned short v) {
    const Node* const item = FindElement(tag, ITEM_WORD_ARRAY, index);
    if (item == nullptr) {
        return false;
    }
    item->m_Value.m_pWords[index] = v;
    return true;
}

bool CMsg2::SetDwordArrayItem(unsigned long tag, unsigned int index, unsigned long v) {
    const Node* const item = FindElement(tag, ITEM_DWORD_ARRAY, index);
    if (item == nullptr) {
        return false;
    }
    item->m_Value.m_pDwords[index] = static_cast<uint32_t>(v);
    return true;
}

unsigned long CMsg2::GetTag(const char* text) {
    unsigned int count = 0;
    const uint32_t chars = pack_chars(text, count);
    return count == 0 ? 0 : chars << 8 * (TAG_CHARS - count);
}

unsigned long CMsg2::GetTag(const char* prefix, unsigned int number) {
    unsigned int count = 0;
    uint32_t tag = pack_chars(prefix, count);
    if (count == TAG_CHARS) {
        return 0;
    }
    unsigned int scale = 1000;
    for (unsigned int i = 0; i < count; ++i) {
        scale /= 10;
    }
    if (number / 10 >= scale) {
        return 0;
    }
    for (; scale > 0; scale /= 10) {
        tag = tag << 8 | ('0' + number / scale % 10);
    }
    return tag;
}

char* CMsg2::GetName(unsigned long tag, char* buf) {
    for (unsigned int i = 0; i < TAG_CHARS; ++i) {
        buf[i] = static_cast<char>(tag >> 8 * (TAG_CHARS - 1 - i));
    }
    buf[TAG_CHARS] = '\0';
    return buf;
}

const CMsg2::Node* CMsg2::FindItem(unsigned long tag, ItemType type) {
    const Node* const item = FindItem(tag);
    return item != nullptr && item->m_nType == type ? item : nullptr;
}

const CMsg2::Node* CMsg2::FindElement(unsigned long tag, ItemType type, unsigned int index) {
    const Node* const item = FindItem(tag, type);
    return item != nullptr && index < item->m_nCount ? item : nullptr;
}

// A new slot at the end, with the tag but without a value; null if there is no room.
CMsg2::Node* CMsg2::AddItem(unsigned long tag) {
    if (m_nItemCount == MAX_COUNT) {
        return nullptr;
    }
    if (m_nItemCount >= m_nCapacity) {
        const bool can_grow = m_nGrowBy > 0 && m_nGrowBy <= UINT32_MAX - m_nCapacity;
        if (!can_grow || !Resize(m_nCapacity + m_nGrowBy)) {
            return nullptr;
        }
    }
    Node* const slot = &m_pItems[m_nItemCount++];
    slot->m_nTag = static_cast<uint32_t>(tag);
    return slot;
}

// Moves the items to an array of that many slots: at least one, and not fewer than there are items.
bool CMsg2::Resize(uint32_t capacity) {
    capacity = std::min<uint32_t>(capacity, MAX_COUNT);
    Node* const items = new (std::nothrow) Node[capacity];
    if (items == nullptr) {
        return false;
    }
    std::copy(m_pItems, m_pItems + m_nItemCount, items);
    delete[] m_pItems;
    m_pItems = items;
    m_nCapacity = capacity;
    return true;
}

// Stores the item's type and value under the tag. The message takes ownership of the value.
bool CMsg2::Store(unsigned long tag, Node item) {
    Node* slot = FindItem(tag);
    if (slot != nullptr) {
        slot->DeleteValue();
    } else {
        slot = AddItem(tag);
    }
    if (slot == nullptr) {
        item.DeleteValue();
        return false;
    }
    item.m_nTag = slot->m_nTag;
    *slot = item;
    return true;
}

// The same for a tag that the message does not have. Leaves the cursor where a search would.
bool CMsg2::Append(unsigned long tag, Node item) {
    if (m_nCursor >= m_nItemCount && m_nItemCount > 0) {
        m_nCursor = 0;
    }
    Node* const slot = AddItem(tag);
    if (slot == nullptr) {
        item.DeleteValue();
        return false;
    }
    item.m_nTag = slot->m_nTag;
    *slot = item;
    return true;
}

bool CMsg2::StoreNumber(unsigned long tag, ItemType type, uint32_t v) {
    Node item(type, 0);
    item.m_Value.m_nDword = v;
    return Store(tag, item);
}
