#include "tools/bus/Traffic.h"

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::Report:
            return "report";
        case Kind::Reply:
            return "reply";
        case Kind::Write:
            return "write";
        case Kind::Read:
            return "read";
        default:
            return "other";
    }
}

Kind KindOf(const CMessage& message) {
    switch (message.GetId()) {
        case ID_REPORT:
            return FindItem(message, TAG_REFERS_TO, CMsg2::ITEM_DWORD) != nullptr ? Kind::Reply
                                                                                  : Kind::Report;
        case ID_WRITE:
        case ID_WRITE_ALIAS:
            return Kind::Write;
        case ID_READ:
            return Kind::Read;
        default:
            return Kind::Other;
    }
}

const CMsg2::Node* FindItem(const CMsg2& message, uint32_t tag, CMsg2::ItemType type) {
    for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
        const CMsg2::Node* const item = message.GetItem(i);
        if (item->m_nTag == tag && item->m_nType == type) {
            return item;
        }
    }
    return nullptr;
}

bool IsPinItem(const CMsg2::Node& item) {
    return item.m_nType == CMsg2::ITEM_BYTE && item.m_nTag < TAG_REQUEST_DATA;
}

PinValue PinValueOf(Kind kind, const CMsg2::Node& item) {
    if (item.m_nType != CMsg2::ITEM_BYTE) {
        return {};
    }
    const WriteValue write(static_cast<uint8_t>(item.m_Value.m_nDword));
    switch (kind) {
        case Kind::Report:
        case Kind::Reply:
            return {write.Byte() != 0 ? Level::Low : Level::High, 0};
        case Kind::Write:
            return {write.GetLevel(), write.Duration()};
        default:
            return {};
    }
}
