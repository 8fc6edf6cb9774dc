// An endpoint of the reliable-UDP transport.
#pragma once

#include <cstdint>

#include "net/InetSocket.h"
#include "rudp/MaybeOwned.h"
#include "rudp/RUdpMsg.h"
#include "rudp/RUdpTIDMap.h"

class CInetAddress;

// One UDP socket, one packet buffer that all messages sent and received share, and the protocol
// that makes a data message reliable: the sender repeats it until it is acknowledged; the receiver
// acknowledges every copy and delivers the message once. The derived class decides which messages
// are delivered and acknowledged.
//
// A server receives and can send datagrams; a client sends, and receives only acknowledgements.
// Times are in milliseconds in 32 bits. For one thread; not copied.
class CRUdpLayer1Base {
public:
    static constexpr unsigned char m_nRUdpVersion = 7;

    // How long a server recognises the repeat of the last message of each sender.
    static constexpr unsigned long REPEAT_MEMORY_MS = 10000;
    // The schedule of a client that was given none: attempts, the time that all of them take, and
    // how much longer each is than the one before.
    static constexpr unsigned int DEFAULT_ATTEMPTS = 4;
    static constexpr unsigned long DEFAULT_TIME_MS = 1000;
    static constexpr unsigned long DEFAULT_FACTOR_PCT = 200;

    // Message types. Any type but a datagram is sent reliably.
    static constexpr unsigned char ACK = 'A';
    static constexpr unsigned char NACK = 'N';
    static constexpr unsigned char MESSAGE = 'M';
    static constexpr unsigned char DATAGRAM = 0;

    // What GetLastError returns.
    enum Error : uint32_t {
        OK = 0,
        REFUSED = 1000,      // the receiver answered with NACK
        TIMED_OUT = 1001,    // no acknowledgement, no message; or a datagram not fully sent
        NO_MESSAGE = 9000,   // null was passed
        NO_TIMEOUTS = 9001,  // a reliable message without a schedule of repetitions
        BAD_LAYER = 9002,    // layer 0, or a type that layer 1 does not have
        BAD_PAYLOAD_VERSION = 9003,
        NO_BUFFER = 9004,      // not opened yet
        TOO_LARGE = 9005,      // the message does not fit the packet
        NOT_RECEIVING = 9006,  // not a server, or not opened yet
        BAD_ENCODING = 9007,   // the message's encoder wrote another size than it announced
        BAD_PAYLOAD = 9008,    // the payload is no message, or more than one
        READ_FAILED = 9009,
        WRITE_FAILED = 9010,  // a reliable message was not fully sent
        ACK_WAIT_FAILED = 9011,
        MSG_WAIT_FAILED = 9012
    };

    // Closed. Transaction IDs start after the time of day in seconds, so that a restarted program
    // does not repeat its earlier ones.
    CRUdpLayer1Base();
    virtual ~CRUdpLayer1Base();
    CRUdpLayer1Base(const CRUdpLayer1Base&) = delete;
    CRUdpLayer1Base& operator=(const CRUdpLayer1Base&) = delete;

    // Opens the socket, closing an open one first, and binds it if host (a local address, or null
    // for any) or port is given. A server needs a port; the system chooses that of a client.
    //
    // msg and map replace the packet buffer and the memory for repeats; they are borrowed until
    // this object is destroyed or given others. With null the endpoint keeps what it has or makes
    // its own: a buffer as large as the socket's, a memory of REPEAT_MEMORY_MS. A client needs no
    // map; it gets the default schedule unless it has one. False, with the socket closed, if
    // anything fails.
    bool Open(bool server, char const* host, unsigned short port, RUdpMsg* msg, CRUdpTIDMap* map);

    // Closes the socket. Buffer and memory stay for the next Open.
    void Close();

    // Sets how often a reliable message is sent and how long to wait for an acknowledgement after
    // each attempt. table is the caller's array of retries entries, borrowed as in Open; with null
    // the endpoint makes its own. With tableReady the table already contains the times; otherwise
    // it is filled with times that add up to totalMs: all equal, or each factorPct percent of the
    // one before (200: twice as long). False, with nothing changed, if retries is 0, if the factor
    // is not above 100 or overflows, or if memory is short.
    bool SetCliOptions(unsigned int retries, unsigned long totalMs, bool exponential,
                       unsigned long factorPct, unsigned long* table, bool tableReady);

    // Sends the packet with a new transaction ID: a datagram once, any other type until it is
    // acknowledged or the schedule ends. For a multicast group the first acknowledgement from any
    // host counts. The caller provides payload, payload version and routing fields; this writes the
    // rest of the header. False with an error code on failure.
    bool SendMsg(CInetAddress const& to, RUdpMsg* msg, unsigned char type, unsigned char layer);

    // Sends the acknowledgement (positive) or refusal of the message tid. False if it could not be
    // sent.
    bool SendAck(CInetAddress const& to, unsigned long tid, bool positive);

    // Reads and drops datagrams until the peer's answer to message tid arrives. Returns 1 and
    // whether it is a refusal; 0 on a timeout; less than 0 if waiting failed.
    int WaitForAck(CInetAddress const& from, unsigned long tid, unsigned long timeoutMs,
                   bool& nack);

    // Waits for a message to deliver and sends acknowledgements. timeoutMs 0xFFFFFFFF waits without
    // limit, 0 reads at most one datagram. msg is the packet buffer: valid until the next message
    // is sent or received. False with an error code on failure.
    bool WaitForMsg(RUdpMsg*& msg, unsigned long timeoutMs);

    // The socket's operations of the same names (addresses in network byte order). False on
    // failure, with errno set.
    bool SetMcastTTL(unsigned int ttl);
    bool SetMcastInterface(unsigned long iface);
    bool JoinMcastGroup(unsigned long group, unsigned long iface);
    bool LeaveMcastGroup(unsigned long group, unsigned long iface);

    // The descriptor for the caller's select(), -1 when closed.
    int GetSocket() const { return m_Socket; }
    // The error code of the last operation.
    unsigned long GetLastError() const { return m_nLastError; }
    static unsigned char GetVer() { return m_nRUdpVersion; }
    // The packet buffer, null before the first Open.
    RUdpMsg* GetMsgBuffer() { return m_pMsg; }

protected:
    // Called for every received datagram with a complete header. Sets deliver (to the caller of
    // WaitForMsg), sendAck (answer the sender) and, with sendAck, positive (ACK rather than NACK).
    virtual void ProcessMessage(RUdpMsg const& msg, bool& deliver, bool& sendAck,
                                bool& positive) = 0;

    // Stores the code for GetLastError. Returns false.
    bool Fail(Error code);

private:
    bool TakeBuffer(RUdpMsg* msg);
    bool TakeTIDMap(CRUdpTIDMap* map);
    bool SetTable(unsigned int retries, unsigned long* table);
    unsigned long NextTID();
    bool Write(CInetAddress const& to, RUdpMsg& msg);
    bool SendReliably(CInetAddress const& to, RUdpMsg& msg);
    bool IsAck(CInetAddress const& from, unsigned long tid, bool& nack);
    bool Receive(bool& delivered);

    CInetSocket m_Socket;
    bool m_bOpen = false;
    MaybeOwned<unsigned long[]> m_pTimeouts;  // m_nRetries entries of 32 bits each
    uint32_t m_nRetries = 0;
    uint32_t m_nTID;  // the last one issued
    MaybeOwned<RUdpMsg> m_pMsg;
    MaybeOwned<CRUdpTIDMap> m_pTIDMap;
    uint32_t m_nLastError = OK;
};
