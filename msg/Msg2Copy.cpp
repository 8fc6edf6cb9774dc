// Copying and merging of messages.
#include <algorithm>
#include <new>
#include <utility>

#include "msg/Msg2.h"

CMsg2::CMsg2(const CMsg2& other) : m_nGrowBy(other.m_nGrowBy) {
    *this = other;
}

CMsg2& CMsg2::operator=(const CMsg2& other) {
    if (&other == this) {
        return *this;
    }
    // The old items go last: other may be one of them.
    CMsg2 copy(other.m_nCapacity, other.m_nGrowBy);
    copy.m_nId = other.m_nId;
    if (copy.CopyItems(other)) {
        Swap(copy);
    }
    return *this;
}

void CMsg2::Copy(const CMsg2* other) {
    if (other != nullptr) {
        *this = *other;
    }
}

CMsg2& CMsg2::operator+=(const CMsg2& other) {
    if (&other == this) {
        return *this;
    }
    if (HoldsMsg()) {
        // Replacing a nested message could free other on the way, if other is part of it.
        CopyItems(CMsg2(other));
    } else {
        CopyItems(other);
    }
    return *this;
}

// A deep copy, or null when memory is short.
CMsg2* CMsg2::Clone(const CMsg2& other) {
    CMsg2* const clone = new (std::nothrow) CMsg2(other.m_nCapacity, other.m_nGrowBy);
    if (clone == nullptr) {
        return nullptr;
    }
    clone->m_nId = other.m_nId;
    if (!clone->CopyItems(other)) {
        delete clone;
        return nullptr;
    }
    return clone;
}

// Sets all items of other, which must not be part of this message. False when one of them failed.
bool CMsg2::CopyItems(const CMsg2& other) {
    bool complete = true;
    for (unsigned int i = 0; i < other.m_nItemCount; ++i) {
        const Node& item = other.m_pItems[i];
        const bool copied =
            item.m_nType == ITEM_MSG ? SetMsg(item.m_nTag, item.m_Value.m_pMsg) : CopyValue(item);
        complete = complete && copied;
    }
    return complete;
}

// Sets an item that is not a message.
bool CMsg2::CopyValue(const Node& item) {
    switch (item.m_nType) {
        case ITEM_BYTE:
        case ITEM_WORD:
        case ITEM_DWORD:
        case ITEM_QWORD:
            return Store(item.m_nTag, item);
        case ITEM_STRING:
            return SetString(item.m_nTag, item.m_Value.m_pString);
        case ITEM_BYTE_ARRAY:
            return SetByteArray(item.m_nTag, item.m_nCount, item.m_Value.m_pBytes);
        case ITEM_WORD_ARRAY:
            return SetWordArray(item.m_nTag, item.m_nCount, item.m_Value.m_pWords);
        case ITEM_DWORD_ARRAY:
            return SetDwordArray(item.m_nTag, item.m_nCount, item.m_Value.m_pDwords);
        default:
            return true;
    }
}

bool CMsg2::HoldsMsg() const {
    return std::any_of(m_pItems, m_pItems + m_nItemCount,
                       [](const Node& item) { return item.m_nType == ITEM_MSG; });
}

void CMsg2::Swap(CMsg2& other) {
    std::swap(m_pItems, other.m_pItems);
    std::swap(m_nId, other.m_nId);
    std::swap(m_nItemCount, other.m_nItemCount);
    std::swap(m_nCapacity, other.m_nCapacity);
    std::swap(m_nGrowBy, other.m_nGrowBy);
    std::swap(m_nCursor, other.m_nCursor);
}
