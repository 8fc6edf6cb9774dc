#include "tools/ctl/Traffic.h"

#include <chrono>

Kind Traffic::GetKind() const {
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

double TimeOfDay() {
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch());
    return static_cast<double>(now.count()) / 1e6;
}
