// Endpoints on loopback, with a scripted plain UDP socket as their peer.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "msg/Message.h"
#include "net/InetAddress.h"
#include "net/SvcAddress.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "rudp/RUdpMsg.h"

// How often the transport allocated memory. New memory is filled, so that none is zero by chance.
unsigned long allocations = 0;

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return memset(operator new(size), 0xA5, size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    ++allocations;
    return memset(operator new[](size), 0xA5, size);
}

namespace {

using Bytes = std::string;
const int PATIENCE = 20000;       // ms; only a busy machine needs more than a few
const Bytes indi("INDI\0\0", 6);  // a message without items
const Bytes tid("\x81\x02\x03\x04", 4);

CInetAddress address_of(int sock) {
    CInetAddress address;
    socklen_t size = sizeof(sockaddr_in);
    EXPECT_EQ(getsockname(sock, address.GetAddress(), &size), 0);
    return address;
}

// Waits until something can be received.
void await(int sock) {
    pollfd arrival = {sock, POLLIN, 0};
    EXPECT_EQ(poll(&arrival, 1, PATIENCE), 1);
}

// Not bound with Bind(), after which the system may choose a port that another socket shares.
class Peer : public CInetSocket {
public:
    explicit Peer(const char* host = "127.0.0.1", unsigned short port = 0) {
        CInetAddress local;
        local.SetAddress(host, port);
        EXPECT_EQ(Open(false) | bind(*this, local.GetAddressPtr(), sizeof(sockaddr_in)), 0);
    }
    CInetAddress Address() { return address_of(*this); }
    CSvcAddress Service() { return {0x7F000001, Address().GetPort()}; }
    void Send(const CInetAddress& to, const Bytes& bytes) {
        Write(&to, bytes.data(), static_cast<int>(bytes.size()));
    }
    Bytes Receive() {
        char buf[2048];
        const bool arrived = WaitForRead(PATIENCE) > 0;
        EXPECT_TRUE(arrived) << "nothing came";
        return {buf, arrived ? static_cast<size_t>(Read(&m_Sender, buf, sizeof buf)) : 0};
    }
    bool Silent() { return WaitForRead(0) == 0; }
    CInetAddress m_Sender;
};

// Opens the server on an unused port, which a socket reserves until the server shares it.
bool open_server(CRUdpLayer2Server& server, RUdpMsg* msg = nullptr) {
    Peer holder;
    const int on = 1;
    setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return server.Open(holder.Address().GetPort(), "127.0.0.1", msg, nullptr);
}

Bytes ack(char type, const Bytes& of) {
    return Bytes{'\0', type, '\0', '\7'} + of;
}

TEST(Transport, AcceptedAnswers) {
    const long unicast = 0x7F000001;
    const long group = static_cast<long>(0xEF010203);
    Peer peer;
    Peer other_host("127.0.0.2", peer.Address().GetPort());
    Peer other_port;
    const struct {
        long to;
        Peer& from;
        Bytes bytes;
        char result;  // ACK, NACK or no answer
    } table[] = {
        {unicast, peer, ack('A', tid), 'A'},
        {unicast, peer, ack('N', tid), 'N'},
        {unicast, peer, "\3A\x09\7" + tid, 'A'},  // bytes 0 and 2 are ignored
        {unicast, peer, ack('A', tid) + "rest", 'A'},
        {unicast, peer, ack('A', tid).substr(0, 7), 0},
        {unicast, peer, ack('M', tid), 0},
        {unicast, peer, Bytes("\0A\0\6", 4) + tid, 0},
        {unicast, peer, ack('A', "\x81\x02\x03\x05"), 0},
        {unicast, other_host, ack('A', tid), 0},
        {unicast, other_port, ack('A', tid), 0},
        {group, other_host, ack('A', tid), 'A'},
        {group, other_port, ack('A', tid), 0},
    };
    CRUdpLayer3Client client(0, 0);
    CMessage msg(16, 16);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    ASSERT_TRUE(client.SendMsg(peer.Service(), &msg, 0)) << "binds to a port";
    for (const auto& row : table) {
        SCOPED_TRACE(testing::Message() << "row " << &row - table);
        CInetAddress to;
        to.SetAddress(row.to, peer.Address().GetPort());
        row.from.Send(address_of(client.GetSocket()), row.bytes);
        await(client.GetSocket());
        bool nack = row.result != 'N';
        EXPECT_EQ(client.WaitForAck(to, 0x81020304, row.result != 0 ? PATIENCE : 20, nack),
                  row.result != 0);
        EXPECT_TRUE(row.result == 0 || nack == (row.result == 'N'));
    }
}

// Fields that are not set are zeros.
TEST(Transport, SentPackets) {
    Peer peer;
    CRUdpLayer3Client client(0, 0);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    CMessage msg(16, 16);
    msg.SetId(0x494E4449);
    msg.SetRoutingInfo1(1, 2, 3, 4);
    for (const bool reliable : {false, true}) {
        msg.SetRel(reliable);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(client.SendMsg(peer.Service(), &msg, CRUdpLayer3Client::USE_MESSAGE_FLAG),
                  !reliable);
        EXPECT_GE(std::chrono::steady_clock::now() - start,
                  std::chrono::milliseconds(reliable ? 995 : 0));
        const Bytes sent = peer.Receive();
        const Bytes header{3, reliable ? 'M' : '\0', 2, 7};
        EXPECT_EQ(sent, header + sent.substr(4, 4) + Bytes(8, '\0') + indi);
        for (int repeats = reliable ? 3 : 0; repeats > 0; --repeats) {
            EXPECT_EQ(peer.Receive(), sent);
        }
        EXPECT_TRUE(peer.Silent());
    }
}

TEST(Transport, Schedules) {
    using Times = std::vector<unsigned long>;
    const struct {
        unsigned retries;
        bool exponential;
        unsigned long factor;
        Times times;  // empty: refused
    } table[] = {
        {4, true, 200, {62, 124, 248, 566}},
        {3, true, 150, {148, 222, 630}},
        {1, true, 200, {1000}},
        {3, false, 0, {333, 333, 334}},
        {2, true, 100, {}},
        {2, true, 0x80000000, {}},  // its square is 0 in 32 bits
        {0, false, 0, {}},
    };
    for (const auto& row : table) {
        CRUdpLayer3Client client(0, 0);
        Times times(row.retries, 7);
        EXPECT_EQ(client.SetCliOptions(row.retries, 1000, row.exponential, row.factor, times.data(),
                                       false),
                  !row.times.empty());
        EXPECT_EQ(times, row.times.empty() ? Times(row.retries, 7) : row.times);
    }
}

// Interrupts blocking system calls periodically.
void interrupt(bool on) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval timer = {{0, on ? 50000 : 0}, {0, on ? 50000 : 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

TEST(Transport, Errors) {
    Peer peer;
    CInetAddress to = peer.Address();
    CInetAddress broadcast;
    broadcast.SetAddress(-1L, 9);
    CMessage msg(16, 16);
    RUdpMsg packet(8);
    RUdpMsg* received = nullptr;
    CRUdpLayer3Server server;
    CRUdpLayer3Client client(0, 0);
    CRUdpLayer1Base& client1 = client;
    CRUdpLayer1Base& server1 = server;
    const auto error = [](const CRUdpLayer1Base& endpoint, bool result) {
        return result ? 0 : endpoint.GetLastError();
    };
    EXPECT_FALSE(server.Open(0, nullptr, nullptr, nullptr)) << "no port";
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, 0)), 9006u);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9004u);
    ASSERT_TRUE(client.Open(nullptr, nullptr) && open_server(server));
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, 0)), 1001u);
    Peer sender;
    for (const char layer : {'\2', '\3'}) {
        sender.Send(address_of(server.GetSocket()),
                    Bytes{layer, '\0', '\2', '\7'} + tid + Bytes(8, '\0') + indi);
    }
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, PATIENCE)), 0u) << "after one that is refused";
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), nullptr, 0)), 9000u);
    EXPECT_EQ(error(server, server1.SendMsg(to, &packet, 'M', 3)), 9001u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 0, 0)), 9002u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 'R', 1)), 9002u);
    EXPECT_EQ(error(client, client1.WaitForMsg(received, 0)), 9006u);
    EXPECT_EQ(error(client, client1.SendMsg(broadcast, &packet, 0, 1)), 1001u);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 'A')), 1001u)
        << "the earlier code";
    EXPECT_EQ(error(client, client1.SendMsg(broadcast, &packet, 'M', 1)), 9010u);

    msg.SetByteArray(1, 40000, nullptr);
    msg.SetByteArray(2, 40000, nullptr);
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9005u) << "above 65535";
    msg.Remove(2);
    ASSERT_TRUE(client.Open(nullptr, &packet));
    EXPECT_EQ(error(client, client.SendMsg(peer.Service(), &msg, 0)), 9005u) << "the buffer";
    EXPECT_TRUE(peer.Silent());

    ASSERT_TRUE(client.SetCliOptions(1, PATIENCE, false, 0, nullptr, false));
    interrupt(true);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, PATIENCE)), 9012u);
    EXPECT_EQ(error(client, client1.SendMsg(to, &packet, 'M', 3)), 9011u);
    interrupt(false);

    // Nothing listens there, which the system reports to a connected socket.
    to.SetAddress(0x7F000001L, Peer().Address().GetPort());
    ASSERT_EQ(connect(server.GetSocket(), to.GetAddressPtr(), 16), 0);
    ASSERT_EQ(send(server.GetSocket(), "", 0, 0), 0);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, PATIENCE)), 9009u);
    EXPECT_TRUE(server.SetMcastTTL(1));
    server.Close();
    EXPECT_FALSE(server.SetMcastTTL(1));
    EXPECT_EQ(server.GetSocket(), -1);
    EXPECT_EQ(error(server, server.WaitForMsg(&msg, PATIENCE)), 9012u);
    EXPECT_FALSE(client.Open(std::string(80, 'x').c_str(), nullptr)) << "no such address";
    EXPECT_EQ(client.GetSocket(), -1);
}

// A datagram larger than the buffer is truncated. Once open, an endpoint allocates nothing.
TEST(Transport, OversizedDatagramsAndMemory) {
    unsigned char memory[32] = {};
    RUdpMsg small(memory, 24);
    CRUdpLayer2Server server;
    CRUdpLayer2Client client(0, 0);
    ASSERT_TRUE(open_server(server, &small));
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    RUdpMsg* const large = client.GetMsgBuffer();
    large->SetDataCount(20000);
    std::fill_n(large->GetDataPtr(), 20000, static_cast<unsigned char>('x'));
    unsigned long after_first = 0;
    for (int i = 0; i < 20; ++i) {
        RUdpMsg* msg = nullptr;
        ASSERT_TRUE(
            client.SendMsg({0x7F000001, address_of(server.GetSocket()).GetPort()}, large, 0, 2));
        ASSERT_TRUE(server.WaitForMsg(msg, PATIENCE));
        EXPECT_EQ(msg->GetDataCount(), 8u);
        after_first = i == 0 ? allocations : after_first;
    }
    EXPECT_EQ(allocations, after_first);
    EXPECT_EQ(memory[23] << 8 | memory[24], 'x' << 8);
}

}  // namespace
