// A message with the routing information of the packet that carries it.
#pragma once

#include "msg/Msg2.h"

// Only identifier and items are encoded; the rest is in the packet's header.
class CMessage : public CMsg2 {
public:
    // No routing information, reliable delivery, message type 0 (a datagram).
    CMessage(unsigned int size, unsigned int growBy) : CMsg2(size, growBy) {}
    CMessage(const CMessage& other) = default;

    // Copy the other message's routing information, identifier and items, as CMsg2's assignment
    // does: all, or nothing if memory is short. Reliable flag and message type stay as they are, so
    // that a reply made from a request keeps its own way of delivery.
    CMessage& Copy(const CMessage& other);
    CMessage& operator=(const CMessage& other);
    using CMsg2::Copy;

    // host (host byte order) and port are where the message came from and where answers go.
    void SetRoutingInfo1(unsigned long host, unsigned short port, unsigned short lockID,
                         unsigned long lockTID);
    void SetRoutingInfo(const CMessage* other);
    unsigned long GetHost() const { return m_nHost; }
    unsigned short GetPort() const { return m_nPort; }
    unsigned short GetLockID() const { return m_nLockID; }
    unsigned long GetLockTID() const { return m_nLockTID; }

    // Whether to send the message with acknowledgement (CRUdpLayer3Client::USE_MESSAGE_FLAG); for a
    // received message, whether it was sent so.
    void SetRel(bool rel) { m_bRel = rel; }
    bool GetRel() const { return m_bRel; }

    // The type of the packet that contained the message.
    void SetMsgType(unsigned char type) { m_nMsgType = type; }
    unsigned char GetMsgType() const { return m_nMsgType; }

private:
    uint32_t m_nHost = 0;
    uint16_t m_nPort = 0;
    uint16_t m_nLockID = 0;
    uint32_t m_nLockTID = 0;
    bool m_bRel = true;
    uint8_t m_nMsgType = 0;
};
