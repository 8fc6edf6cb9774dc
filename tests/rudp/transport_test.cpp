// Endpoints on loopback, opposite a plain UDP socket that follows a script.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "msg/Message.h"
#include "net/InetAddress.h"
#include "net/SvcAddress.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "rudp/RUdpMsg.h"
#include "tests/rudp/test_env.h"

namespace {

using Bytes = std::string;
const int patience = 20000;  // ms, for what comes at once unless the machine is busy

CInetAddress address_of(int sock) {
    CInetAddress address;
    socklen_t size = sizeof(sockaddr_in);
    EXPECT_EQ(getsockname(sock, address.GetAddress(), &size), 0);
    CInetAddress local;
    local.SetAddress(0x7F000001L, address.GetPort());
    return local;
}

class Peer : public CInetSocket {
public:
    Peer() {
        EXPECT_EQ(Open(false), 0);
        EXPECT_EQ(Bind(0, "127.0.0.1"), 0);
    }
    CInetAddress Address() { return address_of(*this); }
    CSvcAddress Service() { return {0x7F000001, Address().GetPort()}; }
    void Send(const CInetAddress& to, const Bytes& bytes) {
        EXPECT_EQ(Write(&to, bytes.data(), static_cast<int>(bytes.size())),
                  static_cast<int>(bytes.size()));
    }
    // Sends to an endpoint of this process and waits until it is there.
    void Send(CRUdpLayer1Base& to, const Bytes& bytes) {
        Send(address_of(to.GetSocket()), bytes);
        pollfd arrival = {to.GetSocket(), POLLIN, 0};
        EXPECT_EQ(poll(&arrival, 1, patience), 1);
    }
    Bytes Receive() {
        char buf[65536];
        EXPECT_GT(WaitForRead(patience), 0) << "nothing came";
        return {buf, static_cast<size_t>(std::max(Read(&m_Sender, buf, sizeof buf), 0))};
    }
    bool Silent() { return WaitForRead(0) == 0; }
    CInetAddress m_Sender;
};

unsigned short free_port() {
    return Peer().Address().GetPort();
}

Bytes ack(char type, const Bytes& tid) {
    return Bytes{'\0', type, '\0', '\7'} + tid;
}

// An INDI message without items, and the packet that carries it.
const Bytes empty_indi{'I', 'N', 'D', 'I', '\0', '\0'};

Bytes packet(int layer, int type, int version, const Bytes& tid, int payload_version,
             const Bytes& payload) {
    return Bytes{static_cast<char>(layer), static_cast<char>(type),
                 static_cast<char>(payload_version), static_cast<char>(version)} +
           tid + Bytes("\x08\x07\x00\x05\x00\x00\x00\x63", 8) + payload;
}

TEST(Transport, RulesOfDelivery) {
    const struct {
        const char* name;
        int layer, type, version, payload_version;
        Bytes payload;
        size_t length;
        char answer;
        unsigned long error;  // 0: delivered
    } table[] = {
        {"datagram", 3, 0, 7, 2, empty_indi, 99, 0, 0},
        {"message", 3, 'M', 7, 2, empty_indi, 99, 'A', 0},
        {"higher layer, unknown type", 255, 'R', 7, 2, empty_indi, 99, 'A', 0},
        {"acknowledgement of a data message's length", 3, 'A', 7, 2, empty_indi, 99, 'A', 0},
        {"no payload", 3, 'M', 7, 2, "", 99, 'A', 0},
        {"lower layer", 2, 'M', 7, 2, empty_indi, 99, 'N', 1001},
        {"lower layer, datagram of another version", 0, 0, 6, 9, "x", 99, 'N', 1001},
        {"another protocol version", 3, 'M', 6, 2, empty_indi, 99, 0, 1001},
        {"another payload version", 3, 'M', 7, 3, empty_indi, 99, 'A', 9003},
        {"payload cut short", 3, 'M', 7, 2, empty_indi, 21, 'A', 9008},
        {"payload too long", 3, 0, 7, 2, empty_indi + "x", 99, 0, 9008},
        {"header cut short", 3, 'M', 7, 2, "", 15, 0, 1001},
        {"acknowledgement", 0, 'A', 7, 0, "", 8, 0, 1001},
        {"empty datagram", 2, 'M', 7, 2, "", 0, 0, 1001},
    };
    CRUdpLayer3Server server;
    ASSERT_TRUE(server.Open(free_port(), "127.0.0.1", nullptr, nullptr));
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        const Bytes tid{'\x81', '\0', '\0', static_cast<char>(&row - table)};
        const Bytes sent =
            packet(row.layer, row.type, row.version, tid, row.payload_version, row.payload)
                .substr(0, row.length);
        const auto expect_answer = [&](Peer& peer) {
            if (row.answer != 0) {
                EXPECT_EQ(peer.Receive(), ack(row.answer, tid));
            }
            EXPECT_TRUE(peer.Silent());
        };
        Peer peer;
        CMessage msg(16, 16);
        peer.Send(server, sent);
        EXPECT_EQ(server.WaitForMsg(&msg, 0), row.error == 0);
        EXPECT_EQ(server.GetLastError(), row.error);
        expect_answer(peer);
        if (row.error == 0) {
            EXPECT_EQ(msg.GetId(), row.payload.empty() ? 0u : 0x494E4449u);
            EXPECT_EQ(msg.GetHost(), 0x7F000001u);
            EXPECT_EQ(msg.GetPort(), 0x0807);
            EXPECT_EQ(msg.GetLockID(), 5);
            EXPECT_EQ(msg.GetLockTID(), 0x63u);
            EXPECT_EQ(msg.GetMsgType(), row.type);
            EXPECT_EQ(msg.GetRel(), row.type != 0);
        }
        peer.Send(server, sent);
        EXPECT_FALSE(server.WaitForMsg(&msg, 0)) << "a repeat";
        EXPECT_EQ(server.GetLastError(), 1001u);
        expect_answer(peer);
    }
}

// Bits 0 to 2 of the number: which attempts are lost. Bits 3 to 5: which acknowledgements are. An
// attempt without an answer is given little time, one that is answered all the time it may need.
TEST(Transport, EveryLossPattern) {
    const unsigned attempts = 3;
    for (unsigned lost = 0; lost < 1u << 2 * attempts; ++lost) {
        SCOPED_TRACE(lost);
        Peer front;
        Peer back;
        CRUdpLayer3Server server;
        CRUdpLayer3Client client(0, 0);
        unsigned long times[attempts];
        unsigned needed = attempts;
        for (unsigned i = attempts; i-- > 0;) {
            const bool answered = ((lost >> i | lost >> (attempts + i)) & 1) == 0;
            times[i] = answered ? patience : 3;
            needed = answered ? i + 1 : needed;
        }
        const bool expected = times[needed - 1] != 3;
        ASSERT_TRUE(server.Open(free_port(), "127.0.0.1", nullptr, nullptr));
        ASSERT_TRUE(client.SetCliOptions(attempts, 0, false, 0, times, true));
        ASSERT_TRUE(client.Open(nullptr, nullptr));

        CMessage msg(16, 16);
        bool succeeded = false;
        std::thread sender([&] { succeeded = client.SendMsg(front.Service(), &msg, 'M'); });
        CMessage received(16, 16);
        unsigned deliveries = 0;
        bool arrived = false;
        for (unsigned i = 0; i < needed; ++i) {
            const Bytes attempt = front.Receive();
            if ((lost >> i & 1) == 0) {
                arrived = true;
                back.Send(server, attempt);
                deliveries += server.WaitForMsg(&received, 0);
                const Bytes answer = back.Receive();
                EXPECT_EQ(answer, ack('A', attempt.substr(4, 4))) << "attempt " << i;
                if ((lost >> (attempts + i) & 1) == 0) {
                    front.Send(front.m_Sender, answer);
                }
            }
        }
        sender.join();
        EXPECT_EQ(succeeded, expected);
        EXPECT_EQ(client.GetLastError(), expected ? 0u : 1001u);
        EXPECT_EQ(deliveries, arrived ? 1u : 0u);
        EXPECT_TRUE(front.Silent()) << "more attempts than needed";
    }
}

TEST(Transport, WhatAnswersAMessage) {
    const Bytes tid("\x81\x02\x03\x04", 4);
    const unsigned long group = 0xEF010203;
    const struct {
        const char* name;
        bool to_group, from_stranger;
        Bytes bytes;
        int result;
        bool nack;
    } table[] = {
        {"ack", false, false, ack('A', tid), 1, false},
        {"nack", false, false, ack('N', tid), 1, true},
        {"layer and payload version", false, false,
         "\x03"
         "A"
         "\x09\x07" +
             tid,
         1, false},
        {"longer", false, false, ack('A', tid) + "rest", 1, false},
        {"shorter", false, false, ack('A', tid).substr(0, 7), 0, false},
        {"another type", false, false, ack('M', tid), 0, false},
        {"another version", false, false, Bytes("\0A\0\x06", 4) + tid, 0, false},
        {"another message", false, false, ack('A', Bytes("\x81\x02\x03\x05", 4)), 0, false},
        {"another port", false, true, ack('A', tid), 0, false},
        {"a member of the group", true, false, ack('A', tid), 1, false},
        {"another port, group", true, true, ack('A', tid), 0, false},
    };
    Peer peer;
    Peer stranger;
    CRUdpLayer3Client client(0, 0);
    ASSERT_TRUE(client.Open("127.0.0.1", nullptr));
    for (const auto& row : table) {
        SCOPED_TRACE(row.name);
        CInetAddress from = peer.Address();
        if (row.to_group) {
            from.SetAddress(static_cast<long>(group), from.GetPort());
        }
        (row.from_stranger ? stranger : peer).Send(client, row.bytes);
        bool nack = false;
        EXPECT_EQ(client.WaitForAck(from, 0x81020304, 20, nack), row.result);
        EXPECT_EQ(nack, row.nack);
    }
}

TEST(Transport, WhatIsSent) {
    Peer peer;
    CRUdpLayer3Client client(0, 0);
    const long before = time(nullptr);
    CRUdpLayer3Client late(0, 0);
    ASSERT_TRUE(late.Open(nullptr, nullptr));
    CMessage msg(16, 16);
    msg.SetId(0x494E4449);
    msg.SetRoutingInfo1(1, 2, 3, 4);
    msg.SetRel(false);
    EXPECT_TRUE(late.SendMsg(peer.Service(), &msg, CRUdpLayer3Client::USE_MESSAGE_FLAG));
    Bytes sent = peer.Receive();
    const Bytes tid = sent.substr(4, 4);
    EXPECT_EQ(sent, Bytes("\x03\x00\x02\x07", 4) + tid + Bytes(8, '\0') + empty_indi);
    const long first = static_cast<long>(
        RUdpMsg(reinterpret_cast<unsigned char*>(&sent[0]), sent.size()).GetMsgTID());
    EXPECT_NEAR(static_cast<double>(first), static_cast<double>(before + 2), 2);

    msg.SetRel(true);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(late.SendMsg(peer.Service(), &msg, CRUdpLayer3Client::USE_MESSAGE_FLAG));
    EXPECT_EQ(late.GetLastError(), 1001u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(995));
    sent = peer.Receive();
    EXPECT_EQ(sent.substr(0, 4), Bytes("\x03M\x02\x07", 4));
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(peer.Receive(), sent) << "attempt " << i;
    }
    EXPECT_TRUE(peer.Silent());
}

TEST(Transport, TransactionIDsSkipZero) {
    Peer peer;
    FixedClock clock(int64_t{0xFFFFFFFE} * 1000000);
    CRUdpLayer3Client client(0, 0);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    CMessage msg(16, 16);
    for (const char* tid : {"\xFF\xFF\xFF\xFF", "\0\0\0\1"}) {
        EXPECT_TRUE(client.SendMsg(peer.Service(), &msg, 0));
        EXPECT_EQ(peer.Receive().substr(4, 4), Bytes(tid, 4));
    }
}

TEST(Transport, Schedules) {
    const struct {
        unsigned retries;
        unsigned long total;
        bool exponential;
        unsigned long factor;
        std::vector<unsigned long> times;  // empty: refused
    } table[] = {
        {4, 1000, true, 200, {62, 124, 248, 566}},
        {3, 1000, true, 150, {148, 222, 630}},
        {1, 1000, true, 200, {1000}},
        {4, 1000, false, 0, {250, 250, 250, 250}},
        {3, 1000, false, 0, {333, 333, 334}},
        {2, 1000, true, 100, {}},
        {2, 1000, true, 0x80000000, {}},  // its square is 0 in 32 bits
        {0, 1000, false, 0, {}},
    };
    for (const auto& row : table) {
        CRUdpLayer3Client client(0, 0);
        std::vector<unsigned long> times(row.retries, 7);
        EXPECT_EQ(client.SetCliOptions(row.retries, row.total, row.exponential, row.factor,
                                       times.data(), false),
                  !row.times.empty());
        EXPECT_EQ(times, row.times.empty() ? std::vector<unsigned long>(row.retries, 7) : row.times)
            << "factor " << row.factor;
    }
}

// Interrupts the system calls that wait, every now and then.
void interrupt(bool on) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const suseconds_t period = on ? 50000 : 0;
    const itimerval timer = {{0, period}, {0, period}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST(Transport, Errors) {
    Peer peer;
    CInetAddress to = peer.Address();
    CInetAddress broadcast;
    broadcast.SetAddress(0xFFFFFFFFL, 9);
    CMessage msg(16, 16);
    RUdpMsg packet(8);
    RUdpMsg* received = nullptr;
    CRUdpLayer3Server server;
    CRUdpLayer3Client client(0, 0);
    CRUdpLayer1Base& client1 = client;
    CRUdpLayer1Base& server1 = server;
    const auto error = [](CRUdpLayer1Base& endpoint, bool result) {
        EXPECT_FALSE(result);
        return endpoint.GetLastError();
    };
    EXPECT_FALSE(server.Open(0, nullptr, nullptr, nullptr)) << "no port";
    EXPECT_EQ(server.GetSocket(), -1);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, 0)), 9006u);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9004u);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    ASSERT_TRUE(server.Open(free_port(), "127.0.0.1", nullptr, nullptr));
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), nullptr, 0)), 9000u);
    EXPECT_EQ(error(client, client1.SendMsg(to, nullptr, 0, 3)), 9000u);
    EXPECT_EQ(error(server, server1.SendMsg(to, &packet, 'M', 3)), 9001u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 0, 0)), 9002u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 'R', 1)), 9002u);
    EXPECT_EQ(error(client, client1.WaitForMsg(received, 0)), 9006u);
    EXPECT_EQ(error(client, client1.SendMsg(broadcast, &packet, 0, 1)), 1001u);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 'A')), 1001u) << "left alone";
    EXPECT_EQ(error(client, client1.SendMsg(broadcast, &packet, 'M', 1)), 9010u);
    EXPECT_FALSE(client.CRUdpLayer2Client::SendMsg(peer.Service(), &packet, 0, 1));
    EXPECT_FALSE(client.CRUdpLayer2Client::SendMsg(peer.Service(), &packet, 'R', 2));

    msg.SetByteArray(1, 40000, nullptr);
    msg.SetByteArray(2, 40000, nullptr);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9005u) << "65535 is the most";
    ASSERT_TRUE(client.Open(nullptr, &packet));
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9005u) << "the buffer";
    EXPECT_TRUE(peer.Silent());

    ASSERT_TRUE(client.SetCliOptions(1, patience, false, 0, nullptr, false));
    interrupt(true);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, patience)), 9012u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 'M', 3)), 9011u);
    interrupt(false);

    to.SetAddress(0x7F000001L, free_port());  // nobody there: a connected socket is told
    ASSERT_EQ(connect(server.GetSocket(), to.GetAddressPtr(), sizeof(sockaddr_in)), 0);
    ASSERT_EQ(send(server.GetSocket(), "", 0, 0), 0);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, patience)), 9009u);
}

TEST(Transport, RefusalEndsAMessageAtOnce) {
    Peer peer;
    CRUdpLayer3Client client(0, 0);
    ASSERT_TRUE(client.SetCliOptions(4, 4 * patience, false, 0, nullptr, false));
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    std::thread refuser([&] {
        const Bytes tid = peer.Receive().substr(4, 4);
        peer.Send(peer.m_Sender, ack('N', tid));
    });
    CMessage msg(16, 16);
    EXPECT_FALSE(client.SendMsg(peer.Service(), &msg, 'M'));
    refuser.join();
    EXPECT_EQ(client.GetLastError(), 1000u);
    EXPECT_TRUE(peer.Silent());
}

// A datagram larger than the caller's buffer is cut to it. Once open, nothing is allocated.
TEST(Transport, OversizedDatagramsAndMemory) {
    unsigned char memory[16 + 8 + 8];
    memset(memory, 0x77, sizeof memory);
    RUdpMsg small(memory, 16 + 8);
    CRUdpLayer2Server server;
    CRUdpLayer2Client client(0, 0);
    ASSERT_TRUE(server.Open(free_port(), "127.0.0.1", &small, nullptr));
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    const CSvcAddress to(0x7F000001, address_of(server.GetSocket()).GetPort());
    unsigned long after_first = 0;
    for (int i = 0; i < 20; ++i) {
        client.GetMsgBuffer()->SetDataCount(20000);
        RUdpMsg* msg = nullptr;
        ASSERT_TRUE(client.SendMsg(to, client.GetMsgBuffer(), 0, 2));
        ASSERT_TRUE(server.WaitForMsg(msg, patience));
        ASSERT_EQ(msg, &small);
        ASSERT_EQ(msg->GetDataCount(), 8u);
        after_first = i == 0 ? allocations : after_first;
    }
    EXPECT_EQ(allocations, after_first);
    EXPECT_EQ(memory[24], 0x77);
}

}  // namespace
