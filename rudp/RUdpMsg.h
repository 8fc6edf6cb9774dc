// One packet of the reliable-UDP transport.
#pragma once

#include <cstdint>

// A header and a payload in one buffer, read and written in place, and three values that are not
// transmitted: the capacity for payload, its current size, and the host it came from. Fields are
// most significant byte first in the buffer; the accessors use host byte order. They check nothing:
// the caller keeps the payload within its capacity. Copied only by Copy.
class RUdpMsg {
public:
    static constexpr unsigned long HEADER_SIZE = 16;
    static constexpr unsigned long ACK_SIZE = 8;  // an acknowledgement is the header's first half

    // A packet that owns a buffer for dataSize bytes of payload, all zeros. If memory is short it
    // has no buffer (GetPacketPtr() is null) and must not be used.
    explicit RUdpMsg(unsigned long dataSize);

    // A packet in the caller's buffer of length bytes, which must outlive it. If that is shorter
    // than a header, only the fields within it may be used.
    RUdpMsg(unsigned char* buffer, unsigned long length);

    virtual ~RUdpMsg();
    RUdpMsg(const RUdpMsg&) = delete;
    RUdpMsg& operator=(const RUdpMsg&) = delete;

    unsigned char GetLayer() const;
    unsigned char GetMsgType() const;
    unsigned char GetPayloadVersion() const;
    unsigned char GetRUdpVersion() const;
    unsigned long GetMsgTID() const;
    unsigned short GetResultPort() const;
    unsigned short GetLockID() const;
    unsigned long GetLockTID() const;

    void SetMsgLayerAndType(unsigned char layer, unsigned char type);
    void SetMsgType(unsigned char type);
    void SetPayloadVersion(unsigned char version);
    void SetRUdpVersion(unsigned char version);
    void SetMsgTID(unsigned long tid);
    void SetRoutingInfo2(unsigned short resultPort, unsigned short lockID, unsigned long lockTID);
    // Copies the source's host, result port, lock ID and lock TID.
    void SetRoutingInfo(RUdpMsg const& source);

    // The address of the sender of a received packet, in host byte order; 0 until set.
    unsigned long GetHost() const { return m_nHost; }
    void SetHost(unsigned long host) { m_nHost = static_cast<uint32_t>(host); }

    // Payload bytes in use.
    unsigned long GetDataCount() const { return m_nDataCount; }
    void SetDataCount(unsigned long count) { m_nDataCount = static_cast<uint32_t>(count); }

    // The length of the datagram: header and payload. n is at least HEADER_SIZE.
    unsigned long GetPacketByteCount() const {
        return static_cast<uint32_t>(m_nDataCount + HEADER_SIZE);
    }
    void SetPacketByteCount(unsigned long n) { SetDataCount(n - HEADER_SIZE); }

    // The capacity without and with the header.
    unsigned long GetDataSize() const { return m_nDataSize; }
    unsigned long GetPacketSize() const { return static_cast<uint32_t>(m_nDataSize + HEADER_SIZE); }

    unsigned char* GetPacketPtr() { return m_pPacket; }
    unsigned char* GetDataPtr() { return m_pPacket + HEADER_SIZE; }
    unsigned char const* GetDataReadPtr() const { return m_pPacket + HEADER_SIZE; }

    // Copies header and payload of the source, but not its host. False, with nothing changed, if
    // the payload does not fit.
    bool Copy(RUdpMsg const& source);

    // Numbers most significant byte first, at any alignment.
    unsigned long ntoh_dw(unsigned char const* p) const;
    void hton_dw(unsigned long value, unsigned char* p);
    unsigned short ntoh_w(unsigned char const* p) const;
    void hton_w(unsigned short value, unsigned char* p);

private:
    uint32_t m_nDataSize;
    uint32_t m_nDataCount = 0;
    uint32_t m_nHost = 0;
    unsigned char* m_pPacket;
    bool m_bOwnPacket;
};
