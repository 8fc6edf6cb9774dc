#include "rudp/RUdpLayer3Client.h"

#include "msg/Message.h"
#include "rudp/RUdpMsg.h"

namespace {

const unsigned char LAYER = 3;
const unsigned long MAX_ENCODED = 65535;  // what the encoder can write

}  // namespace

bool CRUdpLayer3Client::SendMsg(CSvcAddress const& to, CMessage const* msg, unsigned char type) {
    if (msg == nullptr) {
        return Fail(NO_MESSAGE);
    }
    if (type != DATAGRAM && type != MESSAGE && type != USE_MESSAGE_FLAG) {
        return false;
    }
    if (!Encode(*msg)) {
        return false;
    }
    if (type == USE_MESSAGE_FLAG) {
        type = msg->GetRel() ? MESSAGE : DATAGRAM;
    }
    return SendEncoded(to, type);
}

bool CRUdpLayer3Client::Encode(CMsg2 const& msg) {
    RUdpMsg* const packet = GetMsgBuffer();
    if (packet == nullptr) {
        return Fail(NO_BUFFER);
    }
    const unsigned long size = msg.GetTrueDataSize();
    if (size > MAX_ENCODED || size > packet->GetDataSize()) {
        return Fail(TOO_LARGE);
    }
    if (msg.GetData(reinterpret_cast<char*>(packet->GetDataPtr())) != size) {
        return Fail(BAD_ENCODING);
    }
    packet->SetDataCount(size);
    packet->SetPayloadVersion(CMsg2::GetVer());
    return true;
}

bool CRUdpLayer3Client::SendEncoded(CSvcAddress const& to, unsigned char type) {
    return CRUdpLayer2Client::SendMsg(to, GetMsgBuffer(), type, LAYER);
}
