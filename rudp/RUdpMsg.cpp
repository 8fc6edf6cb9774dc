#include "rudp/RUdpMsg.h"

#include <cstdlib>
#include <cstring>

// The packet. An acknowledgement is its first 8 bytes, where layer and payload version have no
// meaning. There is no length field: the payload ends with the datagram.
//
//   offset  width  field
//        0      1  layer of the sending endpoint: 1, 2 or 3
//        1      1  message type: 'M' message, 0 datagram, 'A' acknowledgement, 'N' refusal
//        2      1  version of the payload's own format
//        3      1  version of this protocol: 7
//        4      4  transaction ID of the message (in an acknowledgement: of the one it answers)
//        8      2  result port
//       10      2  lock ID
//       12      4  lock TID
//       16      n  payload

namespace {

enum Offset {
    AT_LAYER = 0,
    AT_TYPE = 1,
    AT_PAYLOAD_VERSION = 2,
    AT_RUDP_VERSION = 3,
    AT_TID = 4,
    AT_RESULT_PORT = 8,
    AT_LOCK_ID = 10,
    AT_LOCK_TID = 12
};

// The buffer starts as zeros, so that header fields the sender does not set don't leak memory. With
// calloc the pages of a large buffer, most of which no datagram ever reaches, are not resident
// until they are used.
unsigned char* new_packet(unsigned long data_size) {
    if (data_size > UINT32_MAX - RUdpMsg::HEADER_SIZE) {
        return nullptr;
    }
    return static_cast<unsigned char*>(calloc(data_size + RUdpMsg::HEADER_SIZE, 1));
}

}  // namespace

RUdpMsg::RUdpMsg(unsigned long dataSize)
    : m_nDataSize(static_cast<uint32_t>(dataSize)),
      m_pPacket(new_packet(dataSize)),
      m_bOwnPacket(true) {
    if (m_pPacket == nullptr) {
        m_nDataSize = 0;
    }
}

RUdpMsg::RUdpMsg(unsigned char* buffer, unsigned long length)
    : m_nDataSize(length > HEADER_SIZE ? static_cast<uint32_t>(length - HEADER_SIZE) : 0),
      m_pPacket(buffer),
      m_bOwnPacket(false) {}

RUdpMsg::~RUdpMsg() {
    if (m_bOwnPacket) {
        free(m_pPacket);
    }
}

unsigned char RUdpMsg::GetLayer() const {
    return m_pPacket[AT_LAYER];
}

unsigned char RUdpMsg::GetMsgType() const {
    return m_pPacket[AT_TYPE];
}

unsigned char RUdpMsg::GetPayloadVersion() const {
    return m_pPacket[AT_PAYLOAD_VERSION];
}

unsigned char RUdpMsg::GetRUdpVersion() const {
    return m_pPacket[AT_RUDP_VERSION];
}

unsigned long RUdpMsg::GetMsgTID() const {
    return ntoh_dw(m_pPacket + AT_TID);
}

unsigned short RUdpMsg::GetResultPort() const {
    return ntoh_w(m_pPacket + AT_RESULT_PORT);
}

unsigned short RUdpMsg::GetLockID() const {
    return ntoh_w(m_pPacket + AT_LOCK_ID);
}

unsigned long RUdpMsg::GetLockTID() const {
    return ntoh_dw(m_pPacket + AT_LOCK_TID);
}

void RUdpMsg::SetMsgLayerAndType(unsigned char layer, unsigned char type) {
    m_pPacket[AT_LAYER] = layer;
    m_pPacket[AT_TYPE] = type;
}

void RUdpMsg::SetMsgType(unsigned char type) {
    m_pPacket[AT_TYPE] = type;
}

void RUdpMsg::SetPayloadVersion(unsigned char version) {
    m_pPacket[AT_PAYLOAD_VERSION] = version;
}

void RUdpMsg::SetRUdpVersion(unsigned char version) {
    m_pPacket[AT_RUDP_VERSION] = version;
}

void RUdpMsg::SetMsgTID(unsigned long tid) {
    hton_dw(tid, m_pPacket + AT_TID);
}

void RUdpMsg::SetRoutingInfo2(unsigned short resultPort, unsigned short lockID,
                              unsigned long lockTID) {
    hton_w(resultPort, m_pPacket + AT_RESULT_PORT);
    hton_w(lockID, m_pPacket + AT_LOCK_ID);
    hton_dw(lockTID, m_pPacket + AT_LOCK_TID);
}

void RUdpMsg::SetRoutingInfo(RUdpMsg const& source) {
    m_nHost = source.m_nHost;
    SetRoutingInfo2(source.GetResultPort(), source.GetLockID(), source.GetLockTID());
}

bool RUdpMsg::Copy(RUdpMsg const& source) {
    if (source.m_nDataCount > m_nDataSize) {
        return false;
    }
    memmove(m_pPacket, source.m_pPacket, source.GetPacketByteCount());
    m_nDataCount = source.m_nDataCount;
    return true;
}

unsigned long RUdpMsg::ntoh_dw(unsigned char const* p) const {
    return static_cast<unsigned long>(p[0]) << 24 | static_cast<unsigned long>(p[1]) << 16 |
           static_cast<unsigned long>(p[2]) << 8 | p[3];
}

void RUdpMsg::hton_dw(unsigned long value, unsigned char* p) {
    p[0] = static_cast<unsigned char>(value >> 24);
    p[1] = static_cast<unsigned char>(value >> 16);
    p[2] = static_cast<unsigned char>(value >> 8);
    p[3] = static_cast<unsigned char>(value);
}

unsigned short RUdpMsg::ntoh_w(unsigned char const* p) const {
    return static_cast<unsigned short>(p[0] << 8 | p[1]);
}

void RUdpMsg::hton_w(unsigned short value, unsigned char* p) {
    p[0] = static_cast<unsigned char>(value >> 8);
    p[1] = static_cast<unsigned char>(value);
}
