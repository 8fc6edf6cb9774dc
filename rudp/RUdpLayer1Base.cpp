#include "rudp/RUdpLayer1Base.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "net/InetAddress.h"

namespace {

const unsigned int SENDER_BUCKETS = 17;
const unsigned int SENDERS_GROW_BY = 32;
const uint32_t NO_LIMIT = 0xFFFFFFFF;
const unsigned long FIRST_GROUP = 0xE0000000;  // 224.0.0.0: multicast and broadcast from here on

bool is_unicast(CInetAddress const& address) {
    return address.GetIP() < FIRST_GROUP;
}

// The remaining time; 0 when it is up. If the clock is set back, elapsed wraps to a very long time
// and the wait ends at once.
uint32_t time_left(CTickTimer const& timer, uint32_t limit) {
    const unsigned long elapsed = static_cast<unsigned long>(timer.Elapsed());
    return elapsed < limit ? static_cast<uint32_t>(limit - elapsed) : 0;
}

// 100 * (factorPct / 100)^n, truncated to a whole number after each step.
uint32_t FPpow100(uint32_t factorPct, unsigned int n) {
    uint32_t power = n == 0 ? 100 : factorPct;
    for (unsigned int i = 1; i < n; ++i) {
        power = power * factorPct / 100;
    }
    return power;
}

// Times that grow by the factor. The last one takes the remainder from rounding.
void fill_exponential(unsigned long* table, unsigned int n, uint32_t total, uint32_t factorPct) {
    const uint32_t base = (factorPct - 100) * total / FPpow100(factorPct, n);
    uint32_t rest = total;
    for (unsigned int i = 0; i + 1 < n; ++i) {
        const uint32_t time = FPpow100(factorPct, i) * base / 100;
        table[i] = time;
        rest -= time;
    }
    table[n - 1] = rest;
}

void fill_linear(unsigned long* table, unsigned int n, uint32_t total) {
    const uint32_t each = total / n;
    std::fill(table, table + n - 1, each);
    table[n - 1] = total - each * (n - 1);
}

// The maximum size of a packet: what fits both of the socket's buffers.
int packet_size(CInetSocket& socket) {
    const int send = socket.GetWriteBufferSize();
    const int receive = socket.GetReadBufferSize();
    return send > 0 && receive > 0 ? std::min(send, receive) : std::max(send, receive);
}

}  // namespace

// ---- opening ----

CRUdpLayer1Base::CRUdpLayer1Base() {
    timeval now;
    gettimeofday(&now, nullptr);
    m_nTID = static_cast<uint32_t>(now.tv_sec);
}

CRUdpLayer1Base::~CRUdpLayer1Base() {
    Close();
}

bool CRUdpLayer1Base::Open(bool server, char const* host, unsigned short port, RUdpMsg* msg,
                           CRUdpTIDMap* map) {
    Close();
    if ((server && port == 0) || m_Socket.Open(false) != 0) {
        return false;
    }
    m_bOpen = TakeBuffer(msg);
    if (m_bOpen && (host != nullptr || port != 0)) {
        m_bOpen = m_Socket.Bind(port, host) == 0;
    }
    if (m_bOpen && server) {
        m_bOpen = TakeTIDMap(map);
    } else if (m_bOpen && m_pTimeouts == nullptr) {
        m_bOpen = SetCliOptions(DEFAULT_ATTEMPTS, DEFAULT_TIME_MS, true, DEFAULT_FACTOR_PCT,
                                nullptr, false);
    }
    if (!m_bOpen) {
        m_Socket.Close();
    }
    return m_bOpen;
}

bool CRUdpLayer1Base::TakeBuffer(RUdpMsg* msg) {
    const int size = packet_size(m_Socket);
    if (size <= static_cast<int>(RUdpMsg::HEADER_SIZE)) {
        return false;
    }
    if (msg != nullptr) {
        m_pMsg.Borrow(msg);
    } else if (m_pMsg == nullptr) {
        m_pMsg.Own(new (std::nothrow)
                       RUdpMsg(static_cast<unsigned long>(size) - RUdpMsg::HEADER_SIZE));
        if (m_pMsg != nullptr && m_pMsg->GetPacketPtr() == nullptr) {
            m_pMsg.Own(nullptr);
        }
    }
    return m_pMsg != nullptr;
}

bool CRUdpLayer1Base::TakeTIDMap(CRUdpTIDMap* map) {
    if (map != nullptr) {
        m_pTIDMap.Borrow(map);
    } else if (m_pTIDMap == nullptr) {
        m_pTIDMap.Own(new (std::nothrow) CRUdpTIDMap(REPEAT_MEMORY_MS, nullptr, SENDER_BUCKETS,
                                                     nullptr, 0, SENDERS_GROW_BY));
    }
    return m_pTIDMap != nullptr;
}

void CRUdpLayer1Base::Close() {
    if (m_bOpen) {
        m_bOpen = false;
        m_Socket.Close();
    }
}

bool CRUdpLayer1Base::SetCliOptions(unsigned int retries, unsigned long totalMs, bool exponential,
                                    unsigned long factorPct, unsigned long* table,
                                    bool tableReady) {
    const uint32_t total = static_cast<uint32_t>(totalMs);
    const uint32_t factor = static_cast<uint32_t>(factorPct);
    // The power may wrap to 0, by which the base can't be divided.
    if (retries == 0 ||
        (exponential && !tableReady && (factor <= 100 || FPpow100(factor, retries) == 0))) {
        return false;
    }
    if (!SetTable(retries, table)) {
        return false;
    }
    if (!tableReady) {
        if (exponential) {
            fill_exponential(m_pTimeouts, m_nRetries, total, factor);
        } else {
            fill_linear(m_pTimeouts, m_nRetries, total);
        }
    }
    return true;
}

// Borrows the caller's table, or makes sure that the endpoint has its own.
bool CRUdpLayer1Base::SetTable(unsigned int retries, unsigned long* table) {
    if (table != nullptr) {
        m_pTimeouts.Borrow(table);
    } else if (m_pTimeouts == nullptr || retries != m_nRetries) {
        const size_t size = retries;
        if (size <= PTRDIFF_MAX / sizeof *table) {  // the limit of an array's size
            table = new (std::nothrow) unsigned long[size]();
        }
        if (table == nullptr) {
            return false;
        }
        m_pTimeouts.Own(table);
    }
    m_nRetries = retries;
    return true;
}

// ---- sending ----

bool CRUdpLayer1Base::SendMsg(CInetAddress const& to, RUdpMsg* msg, unsigned char type,
                              unsigned char layer) {
    m_nLastError = OK;
    if (msg == nullptr) {
        return Fail(NO_MESSAGE);
    }
    if (m_nRetries == 0 && type != DATAGRAM) {
        return Fail(NO_TIMEOUTS);
    }
    if (layer == 0 || (layer == 1 && type != DATAGRAM && type != MESSAGE)) {
        return Fail(BAD_LAYER);
    }
    msg->SetMsgTID(NextTID());
    msg->SetRUdpVersion(m_nRUdpVersion);
    msg->SetMsgLayerAndType(layer, type);
    if (type == DATAGRAM) {
        return Write(to, *msg) || Fail(TIMED_OUT);
    }
    return SendReliably(to, *msg);
}

// 0 is no transaction ID.
unsigned long CRUdpLayer1Base::NextTID() {
    ++m_nTID;
    if (m_nTID == 0) {
        ++m_nTID;
    }
    return m_nTID;
}

bool CRUdpLayer1Base::Write(CInetAddress const& to, RUdpMsg& msg) {
    const int length = static_cast<int>(msg.GetPacketByteCount());
    return m_Socket.Write(&to, reinterpret_cast<char*>(msg.GetPacketPtr()), length) == length;
}

// All attempts carry the same transaction ID, so that the receiver recognises repeats.
bool CRUdpLayer1Base::SendReliably(CInetAddress const& to, RUdpMsg& msg) {
    for (uint32_t i = 0; i < m_nRetries; ++i) {
        if (!Write(to, msg)) {
            return Fail(WRITE_FAILED);
        }
        bool nack = false;
        const int answer = WaitForAck(to, m_nTID, m_pTimeouts[i], nack);
        if (answer < 0) {
            return Fail(ACK_WAIT_FAILED);
        }
        if (answer > 0) {
            return !nack || Fail(REFUSED);
        }
    }
    return Fail(TIMED_OUT);
}

int CRUdpLayer1Base::WaitForAck(CInetAddress const& from, unsigned long tid,
                                unsigned long timeoutMs, bool& nack) {
    const uint32_t limit = static_cast<uint32_t>(timeoutMs);
    CTickTimer timer;
    for (;;) {
        const uint32_t left = time_left(timer, limit);
        if (left == 0) {
            return 0;
        }
        const int readable = m_Socket.WaitForRead(left);
        if (readable < 0) {
            return readable;
        }
        if (readable > 0 && IsAck(from, tid, nack)) {
            return 1;
        }
    }
}

// Reads one datagram. Returns whether it is the expected answer.
bool CRUdpLayer1Base::IsAck(CInetAddress const& from, unsigned long tid, bool& nack) {
    unsigned char buffer[RUdpMsg::ACK_SIZE];
    CInetAddress sender;
    if (m_Socket.Read(&sender, reinterpret_cast<char*>(buffer), sizeof buffer) !=
        static_cast<int>(sizeof buffer)) {
        return false;
    }
    // Any member may answer for a group, from its own address but from the group's port.
    if (is_unicast(from) ? sender != from : sender.GetPort() != from.GetPort()) {
        return false;
    }
    const RUdpMsg ack(buffer, sizeof buffer);
    const unsigned char type = ack.GetMsgType();
    if (ack.GetRUdpVersion() != m_nRUdpVersion || (type != ACK && type != NACK) ||
        ack.GetMsgTID() != static_cast<uint32_t>(tid)) {
        return false;
    }
    nack = type == NACK;
    return true;
}

// ---- receiving ----

// Layer and payload version have no meaning here and stay 0.
bool CRUdpLayer1Base::SendAck(CInetAddress const& to, unsigned long tid, bool positive) {
    unsigned char buffer[RUdpMsg::ACK_SIZE] = {};
    RUdpMsg ack(buffer, sizeof buffer);
    ack.SetMsgType(positive ? ACK : NACK);
    ack.SetRUdpVersion(m_nRUdpVersion);
    ack.SetMsgTID(tid);
    return m_Socket.Write(&to, reinterpret_cast<char*>(buffer), sizeof buffer) ==
           static_cast<int>(sizeof buffer);
}

bool CRUdpLayer1Base::WaitForMsg(RUdpMsg*& msg, unsigned long timeoutMs) {
    m_nLastError = OK;
    if (m_pTIDMap == nullptr || m_pMsg == nullptr) {
        return Fail(NOT_RECEIVING);
    }
    const uint32_t limit = static_cast<uint32_t>(timeoutMs);
    uint32_t left = limit;
    CTickTimer timer;
    for (;;) {
        m_pTIDMap->RemoveOldEntries();
        const int readable = m_Socket.WaitForRead(left);
        if (readable < 0) {
            return Fail(MSG_WAIT_FAILED);
        }
        if (readable == 0) {
            return Fail(TIMED_OUT);
        }
        bool delivered = false;
        if (!Receive(delivered)) {
            return Fail(READ_FAILED);
        }
        if (delivered) {
            msg = m_pMsg;
            return true;
        }
        if (limit != NO_LIMIT && (left = time_left(timer, limit)) == 0) {
            return Fail(TIMED_OUT);
        }
    }
}

// Reads one datagram, answers it and decides whether to deliver it. It answers before it tests for
// repeats, because the first acknowledgement may have been lost. False if the socket can't be read.
bool CRUdpLayer1Base::Receive(bool& delivered) {
    RUdpMsg& packet = *m_pMsg;
    CInetAddress sender;
    const int length = m_Socket.Read(&sender, reinterpret_cast<char*>(packet.GetPacketPtr()),
                                     static_cast<int>(packet.GetPacketSize()));
    if (length < 0) {
        printf("ERROR: WaitForMessage: Error on Read! (cbMsg=%d,WSA=%d)\n", length, errno);
        return false;
    }
    delivered = false;
    if (static_cast<unsigned long>(length) < RUdpMsg::HEADER_SIZE) {
        return true;
    }
    packet.SetPacketByteCount(static_cast<unsigned long>(length));
    bool deliver = false;
    bool send_ack = false;
    bool positive = false;
    ProcessMessage(packet, deliver, send_ack, positive);
    if (send_ack && is_unicast(sender)) {
        SendAck(sender, packet.GetMsgTID(), positive);
    }
    if (deliver &&
        !m_pTIDMap->DuplicateTestAndSet(sender.GetIP(), sender.GetPort(), packet.GetMsgTID())) {
        packet.SetHost(sender.GetIP());
        delivered = true;
    }
    return true;
}

bool CRUdpLayer1Base::Fail(Error code) {
    m_nLastError = code;
    return false;
}

// ---- multicast ----

bool CRUdpLayer1Base::SetMcastTTL(unsigned int ttl) {
    return m_Socket.SetMcastTTL(ttl) == 0;
}

bool CRUdpLayer1Base::SetMcastInterface(unsigned long iface) {
    return m_Socket.SetMcastInterface(iface) == 0;
}

bool CRUdpLayer1Base::JoinMcastGroup(unsigned long group, unsigned long iface) {
    return m_Socket.JoinMcastGroup(group, iface) == 0;
}

bool CRUdpLayer1Base::LeaveMcastGroup(unsigned long group, unsigned long iface) {
    return m_Socket.LeaveMcastGroup(group, iface) == 0;
}
