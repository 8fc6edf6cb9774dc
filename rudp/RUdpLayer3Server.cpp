#include "rudp/RUdpLayer3Server.h"

#include "msg/Message.h"
#include "rudp/RUdpMsg.h"

void CRUdpLayer3Server::ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                                       bool& positive) {
    ProcessFrom(GetLayer(), msg, deliver, sendAck, positive);
}

bool CRUdpLayer3Server::WaitForMsg(CMessage* msg, unsigned long timeoutMs) {
    RUdpMsg* packet = nullptr;
    if (!CRUdpLayer2Server::WaitForMsg(packet, timeoutMs)) {
        return false;
    }
    if (packet == nullptr) {
        return Fail(NO_BUFFER);
    }
    if (packet->GetPayloadVersion() != CMsg2::GetVer()) {
        return Fail(BAD_PAYLOAD_VERSION);
    }
    // An empty payload is an empty message: SetData used 0 bytes of 0.
    const unsigned long size = packet->GetDataCount();
    if (msg->SetData(reinterpret_cast<char const*>(packet->GetDataReadPtr()), size) != size) {
        return Fail(BAD_PAYLOAD);
    }
    msg->SetRoutingInfo1(packet->GetHost(), packet->GetResultPort(), packet->GetLockID(),
                         packet->GetLockTID());
    msg->SetMsgType(packet->GetMsgType());
    msg->SetRel(packet->GetMsgType() != DATAGRAM);
    return true;
}
