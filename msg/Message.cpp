#include "msg/Message.h"

CMessage& CMessage::Copy(const CMessage& other) {
    if (CMsg2::Copy(&other)) {
        SetRoutingInfo(&other);
    }
    return *this;
}

CMessage& CMessage::operator=(const CMessage& other) {
    if (&other != this) {
        Copy(other);
    }
    return *this;
}

void CMessage::SetRoutingInfo1(unsigned long host, unsigned short port, unsigned short lockID,
                               unsigned long lockTID) {
    m_nHost = static_cast<uint32_t>(host);
    m_nPort = port;
    m_nLockID = lockID;
    m_nLockTID = static_cast<uint32_t>(lockTID);
}

void CMessage::SetRoutingInfo(const CMessage* other) {
    SetRoutingInfo1(other->GetHost(), other->GetPort(), other->GetLockID(), other->GetLockTID());
}
