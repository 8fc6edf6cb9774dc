// Copying and merging of messages.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "msg/Msg2.h"

CMsg2::CMsg2(const CMsg2& other) : m_nGrowBy(other.m_nGrowBy) {
    *this = other;
}

CMsg2& CMsg2::operator=(const CMsg2& other) {
    if (&other != this) {
        Copy(&other);
    }
    return *this;
}

bool CMsg2::Copy(const CMsg2* other) {
    if (other == nullptr || other == this) {
        return other != nullptr;
    }
    // The old items go last: other may be one of them.
    CMsg2 copy(other->m_nCapacity, other->m_nGrowBy);
    copy.m_nId = other->m_nId;
    copy.m_nCursor = m_nCursor;
    const bool complete = copy.CopyItems(*other);
    if (complete) {
        Swap(copy);
    }
    return complete;
}

CMsg2& CMsg2::operator+=(const CMsg2& other) {
    if (&other != this && Holds(other)) {
        MergeNested(other);
    } else {
        CopyItems(other);
    }
    return *this;
}

// A deep copy, or null if memory is short.
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

// Sets all items of other, which must not be nested in this message. False if one of them failed.
// Every tag is compared with those before it, unless all are known to be distinct.
bool CMsg2::CopyItems(const CMsg2& other) {
    const bool are_new = m_nItemCount == 0 && other.m_bDistinct;
    bool complete = true;
    for (unsigned int i = 0; i < other.m_nItemCount; ++i) {
        const Node& item = other.m_pItems[i];
        complete = CopyItem(item.m_nTag, item, are_new) && complete;
    }
    return complete;
}

// Sets the tag to a copy of the item's value. With is_new, the tag is known to be new.
bool CMsg2::CopyItem(unsigned long tag, const Node& item, bool is_new) {
    if (item.m_nType == ITEM_NONE || item.m_nType > ITEM_QWORD) {
        return true;
    }
    Node copy(static_cast<ItemType>(item.m_nType), item.m_nCount);
    return copy.MakeCopy(item) && (is_new ? Append(tag, copy) : Store(tag, copy));
}

// Copies the value of a slot of the same type and count.
bool CMsg2::Node::MakeCopy(const Node& other) {
    switch (m_nType) {
        case ITEM_STRING:
            return MakeString(other.m_Value.m_pString);
        case ITEM_BYTE_ARRAY:
            return MakeArray(other.m_Value.m_pBytes);
        case ITEM_WORD_ARRAY:
            return MakeArray(other.m_Value.m_pWords);
        case ITEM_DWORD_ARRAY:
            return MakeArray(other.m_Value.m_pDwords);
        case ITEM_MSG:
            return MakeMsg(*other.m_Value.m_pMsg);
        default:
            m_Value = other.m_Value;
            return true;
    }
}

bool CMsg2::EqualsItsCopy() const {
    return m_bDistinct && std::all_of(m_pItems, m_pItems + m_nItemCount, [](const Node& item) {
               if (item.m_nType == ITEM_BYTE) {
                   return true;
               }
               if (item.m_nType == ITEM_STRING) {  // copied up to its first NUL
                   return item.m_nCount == 0 || strlen(item.m_Value.m_pString) + 1 == item.m_nCount;
               }
               if (item.m_nType == ITEM_MSG) {
                   return item.m_Value.m_pMsg->EqualsItsCopy();
               }
               return item.m_nType != ITEM_NONE && item.m_nType <= ITEM_QWORD;
           });
}

bool CMsg2::HoldsMsg() const {
    return std::any_of(m_pItems, m_pItems + m_nItemCount,
                       [](const Node& item) { return item.m_nType == ITEM_MSG; });
}

// Whether other is this message or part of it.
bool CMsg2::Holds(const CMsg2& other) const {
    return &other == this || std::any_of(m_pItems, m_pItems + m_nItemCount, [&](const Node& item) {
        return item.m_nType == ITEM_MSG && item.m_Value.m_pMsg->Holds(other);
    });
}

// Merges a message nested in this one, from a copy: replacing an item could free it meanwhile.
// Items with the same tag would become one in the copy, so it uses positions as tags until it is
// complete.
void CMsg2::MergeNested(const CMsg2& other) {
    CMsg2 copy(other.m_nItemCount, 0);
    for (unsigned int i = 0; i < other.m_nItemCount; ++i) {
        copy.CopyItem(i, other.m_pItems[i], true);
    }
    for (unsigned int i = 0; i < copy.m_nItemCount; ++i) {
        uint32_t& tag = copy.m_pItems[i].m_nTag;
        tag = other.m_pItems[tag].m_nTag;
    }
    copy.m_bDistinct = other.m_bDistinct;
    CopyItems(copy);
}

void CMsg2::Swap(CMsg2& other) {
    std::swap(m_pItems, other.m_pItems);
    std::swap(m_nId, other.m_nId);
    std::swap(m_nItemCount, other.m_nItemCount);
    std::swap(m_nCapacity, other.m_nCapacity);
    std::swap(m_nGrowBy, other.m_nGrowBy);
    std::swap(m_nCursor, other.m_nCursor);
    std::swap(m_bDistinct, other.m_bDistinct);
}
