// Packets, their transaction IDs and the memory for repeats, with a clock that the tests set.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "net/SvcAddress.h"
#include "rudp/RUdpLayer2Client.h"
#include "rudp/RUdpMsg.h"
#include "rudp/RUdpTIDMap.h"
#include "tests/support/Clock.h"
#include "tests/support/Senders.h"

namespace {

std::string bytes_of(RUdpMsg& packet) {
    return {reinterpret_cast<char*>(packet.GetPacketPtr()), packet.GetPacketByteCount()};
}

TEST(Packet, Layout) {
    RUdpMsg packet(4);
    EXPECT_EQ(bytes_of(packet), std::string(16, '\0'));
    packet.SetMsgLayerAndType(3, 'M');
    packet.SetPayloadVersion(2);
    packet.SetRUdpVersion(7);
    packet.SetMsgTID(0x81020304);
    packet.SetRoutingInfo2(0x9234, 0xABCD, 0x91A2B3C4);
    packet.GetDataPtr()[0] = 0x55;
    packet.SetDataCount(0xFFFFFFFF);
    EXPECT_EQ(packet.GetPacketByteCount(), 15U) << "32 bits";
    packet.SetDataCount(1);
    packet.SetHost(9);
    EXPECT_EQ(bytes_of(packet), std::string("\x03M\x02\x07"     // layer, type, versions
                                            "\x81\x02\x03\x04"  // transaction ID
                                            "\x92\x34\xAB\xCD"  // result port, lock ID
                                            "\x91\xA2\xB3\xC4"  // lock TID
                                            "\x55"));
    RUdpMsg copy(1);
    ASSERT_TRUE(copy.Copy(packet));
    EXPECT_EQ(bytes_of(copy), bytes_of(packet));
    EXPECT_EQ(copy.GetHost(), 0u);
    EXPECT_EQ(copy.GetMsgTID(), 0x81020304u);
    copy.SetRoutingInfo2(0, 0, 0);
    copy.SetRoutingInfo(packet);
    EXPECT_EQ(bytes_of(copy), bytes_of(packet));
    EXPECT_EQ(copy.GetHost(), 9u) << "copied with the routing information only";
    packet.SetDataCount(2);
    packet.SetMsgType(0);
    EXPECT_FALSE(copy.Copy(packet)) << "one byte too many";
    EXPECT_EQ(copy.GetMsgType(), 'M');
}

TEST(Packet, Capacity) {
    unsigned char memory[17];
    EXPECT_EQ(RUdpMsg(memory, 8).GetDataSize(), 0u);
    EXPECT_EQ(RUdpMsg(memory, 16).GetDataSize(), 0u);
    EXPECT_EQ(RUdpMsg(memory, 17).GetDataSize(), 1u);
    EXPECT_EQ(RUdpMsg(0xFFFFFFF0ul).GetPacketPtr(), nullptr) << "with its header beyond 32 bits";
}

// They start after the time of day, here 2^32 - 2, and skip 0.
TEST(Packet, TransactionIDs) {
    Clock::Advance(-1002, 0);
    CInetSocket sock;
    CInetAddress to;
    socklen_t size = sizeof(sockaddr_in);
    ASSERT_EQ(sock.Open(false) | sock.Bind(0, "127.0.0.1"), 0);
    ASSERT_EQ(getsockname(sock, to.GetAddress(), &size), 0);
    CRUdpLayer2Client client(0, 0);
    ASSERT_TRUE(client.Open(nullptr, nullptr));
    for (const unsigned long tid : {0xFFFFFFFFul, 1ul, 2ul}) {
        RUdpMsg packet(0);
        EXPECT_TRUE(client.SendMsg({to.GetIP(), to.GetPort()}, &packet, 0, 2));
        EXPECT_EQ(packet.GetMsgTID(), tid);
    }
}

// Random traffic of 80 peers or 8 with mostly short intervals, some of just over 2^32 microseconds,
// and with the clock set back now and then.
TEST(TIDMap, RemembersTheLastOfEachPeer) {
    const long steps[] = {0, 0, 0, 0, 1, 1, 2, 5, 6, 4294970, -1};
    const struct {
        unsigned int nodes, grow_by, buckets;
    } table[] = {{0, 32, 17}, {5, 3, 17}, {5, 0, 17}, {1, 0, 1}, {0, 0, 17}, {40, 0, 3}};
    for (const auto& row : table) {
        std::vector<CRUdpTIDMap::Node> nodes(row.nodes);
        CRUdpTIDMap map(5, nullptr, row.buckets, nodes.data(), row.nodes, row.grow_by);
        Senders model(5, row.grow_by != 0 ? 80 : row.nodes);
        std::mt19937 engine(1);  // NOLINT(cert-msc*): the same traffic every time
        const auto random = [&](size_t n) { return static_cast<uint32_t>(engine() % n); };
        int64_t now = 0;
        for (int i = 0; i < 20000; ++i) {
            const long step = steps[random(i % 50 == 0 ? 11 : 6)];
            Clock::Advance(step < 0 ? -1 : step / 1000, step < 0 ? 999000 : step % 1000 * 1000);
            now += step;
            map.RemoveOldEntries();
            model.Forget(now * 1000);
            const uint32_t host = 0x0A000000 + random(i % 1000 < 500 ? 10 : 1);
            const uint16_t port = static_cast<uint16_t>(2055 + random(8));
            const uint32_t tid = random(2);
            ASSERT_EQ(map.DuplicateTestAndSet(host, port, tid),
                      model.IsRepeated(now * 1000, {host, port}, tid))
                << "message " << i << ", " << row.nodes << " nodes, growing by " << row.grow_by;
        }
    }
}

}  // namespace
