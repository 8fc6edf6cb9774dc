// Packets and the memory for repeats: no sockets, and a clock that the tests set.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <list>
#include <random>
#include <vector>

#include "rudp/RUdpMsg.h"
#include "rudp/RUdpTIDMap.h"
#include "tests/rudp/test_env.h"

namespace {

TEST(Packet, Layout) {
    RUdpMsg packet(4);
    EXPECT_TRUE(std::all_of(packet.GetPacketPtr(), packet.GetPacketPtr() + 20,
                            [](unsigned char c) { return c == 0; }));
    packet.SetMsgLayerAndType(3, 'M');
    packet.SetPayloadVersion(2);
    packet.SetRUdpVersion(7);
    packet.SetMsgTID(0x81020304);
    packet.SetRoutingInfo2(0x1234, 0xABCD, 0x91A2B3C4);
    packet.GetDataPtr()[0] = 0x55;
    packet.SetDataCount(1);
    const std::array<unsigned char, 17> expected = {
        3,    'M',  2,    7,     // layer, type, payload version, protocol version
        0x81, 0x02, 0x03, 0x04,  // transaction ID
        0x12, 0x34, 0xAB, 0xCD,  // result port, lock ID
        0x91, 0xA2, 0xB3, 0xC4,  // lock TID
        0x55};
    ASSERT_EQ(packet.GetPacketByteCount(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), packet.GetPacketPtr()));

    std::array<unsigned char, 18> buffer = {};
    {
        RUdpMsg same(buffer.data(), buffer.size());
        packet.SetHost(9);
        ASSERT_TRUE(same.Copy(packet));
        EXPECT_EQ(same.GetHost(), 0u);
        EXPECT_EQ(same.GetLayer() << 8 | same.GetMsgType(), 3 << 8 | 'M');
        EXPECT_EQ(same.GetPayloadVersion() << 8 | same.GetRUdpVersion(), 0x0207);
        EXPECT_EQ(same.GetMsgTID(), 0x81020304u);
        EXPECT_EQ(same.GetResultPort(), 0x1234);
        EXPECT_EQ(same.GetLockID(), 0xABCD);
        EXPECT_EQ(same.GetLockTID(), 0x91A2B3C4u);
        EXPECT_EQ(same.GetDataReadPtr()[0], 0x55);
        same.SetRoutingInfo2(0, 0, 0);
        same.SetRoutingInfo(packet);
        EXPECT_EQ(same.GetHost(), 9u);
        EXPECT_EQ(same.GetLockTID(), 0x91A2B3C4u);
    }
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), buffer.begin()));
}

TEST(Packet, Capacity) {
    std::array<unsigned char, 18> bytes = {};
    const struct { unsigned long length, capacity; } table[] = {{8, 0}, {16, 0}, {17, 1}, {18, 2}};
    for (const auto& row : table) {
        EXPECT_EQ(RUdpMsg(bytes.data(), row.length).GetDataSize(), row.capacity);
    }
    RUdpMsg source(3);
    source.SetPacketByteCount(19);
    RUdpMsg packet(bytes.data(), bytes.size());
    source.SetMsgTID(1);
    EXPECT_FALSE(packet.Copy(source)) << "one byte too many";
    EXPECT_EQ(packet.GetMsgTID(), 0u);
    source.SetDataCount(2);
    EXPECT_TRUE(packet.Copy(source));
    EXPECT_EQ(RUdpMsg(0xFFFFFFF0ul).GetPacketPtr(), nullptr) << "its size can't be told";
}

// Messages to a map as the transport makes it, each after the given time.
TEST(TIDMap, RepeatsAndAges) {
    const uint32_t a = 0x0A000001;
    const uint32_t b = 0x0A000002;
    const struct {
        int64_t after_ms;
        uint32_t host;
        uint16_t port;
        uint32_t tid;
        bool repeat;
    } table[] = {
        {0, a, 2060, 1, false},
        {0, a, 2060, 1, true},
        {0, a, 2061, 1, false},     // another port
        {0, b, 2060, 1, false},     // another host
        {10000, a, 2060, 1, true},  // as old as allowed
        {1, a, 2060, 1, false},     // all three expired
        {5000, a, 2060, 2, false},  // the newest: its time runs on
        {0, a, 2060, 1, false},     // only the last one counts
        {5001, a, 2060, 1, false},  // expired, although its ID changed 5 s ago
        {1, b, 2060, 1, false},
        {1000, a, 2060, 2, false},  // not the newest: its time starts again
        {9500, a, 2060, 2, true},
        {0, b, 2060, 1, false},        // expired meanwhile
        {2400000, b, 2060, 1, false},  // 40 minutes
        {4294968, b, 2060, 1, false},  // 2^32 microseconds
        {-1, b, 2060, 1, false},       // the clock was set back
        {0, b, 2060, 1, true},
    };
    FixedClock clock(1700000000000000);
    CRUdpTIDMap map(10000, nullptr, 17, nullptr, 0, 32);
    for (const auto& row : table) {
        clock.now += row.after_ms * 1000;
        map.RemoveOldEntries();
        EXPECT_EQ(map.DuplicateTestAndSet(row.host, row.port, row.tid), row.repeat)
            << "row " << &row - table;
    }
}

// What a map remembers, in the plainest way.
class Model {
public:
    Model(int64_t max_age, size_t capacity) : m_MaxAge(max_age), m_Capacity(capacity) {}

    bool Test(int64_t now, uint32_t host, uint16_t port, uint32_t tid) {
        while (!m_Entries.empty() && now - m_Entries.front().since > m_MaxAge) {
            m_Entries.pop_front();
        }
        for (auto i = m_Entries.begin(); i != m_Entries.end(); ++i) {
            if (i->host == host && i->port == port) {
                const bool repeat = i->tid == tid;
                i->tid = tid;
                if (!repeat && &*i != &m_Entries.back()) {
                    i->since = now;
                    m_Entries.splice(m_Entries.end(), m_Entries, i);
                }
                return repeat;
            }
        }
        m_Entries.push_back({host, port, tid, now});
        if (m_Entries.size() > m_Capacity) {
            m_Entries.pop_front();
        }
        return false;
    }

private:
    struct Entry {
        uint32_t host;
        uint16_t port;
        uint32_t tid;
        int64_t since;
    };
    std::list<Entry> m_Entries;
    int64_t m_MaxAge;
    size_t m_Capacity;
};

TEST(TIDMap, AnyTraffic) {
    const struct {
        unsigned int nodes, grow_by, buckets;
    } table[] = {{0, 32, 17}, {5, 3, 17}, {5, 0, 17}, {1, 0, 1}, {0, 0, 17}, {40, 0, 3}};
    for (const auto& row : table) {
        SCOPED_TRACE(testing::Message() << row.nodes << " nodes, growing by " << row.grow_by);
        std::vector<CRUdpTIDMap::Node> nodes(row.nodes);
        std::vector<CRUdpTIDMap::List> lists(row.buckets);
        FixedClock clock(1700000000000000);
        CRUdpTIDMap map(50, lists.data(), row.buckets, nodes.data(), row.nodes, row.grow_by);
        Model model(50, row.grow_by != 0 ? 1000 : row.nodes);
        std::mt19937 engine(1);
        const auto random = [&] { return static_cast<uint32_t>(engine()); };
        for (int i = 0; i < 20000; ++i) {
            const uint32_t host = 0x0A000000 + random() % 10;
            const uint16_t port = static_cast<uint16_t>(2055 + random() % 8);
            const uint32_t tid = random() % 2;
            clock.now += random() % 3 * 1000;
            map.RemoveOldEntries();
            ASSERT_EQ(map.DuplicateTestAndSet(host, port, tid),
                      model.Test(clock.now / 1000, host, port, tid))
                << "message " << i;
        }
    }
}

TEST(TIDMap, BucketOfAPeer) {
    CRUdpTIDMap::List lists[17];
    CRUdpTIDMap::Hash hash(lists, 17, nullptr, nullptr);
    EXPECT_EQ(hash.GetList(0x0A000001, 2060), lists + 3);
    EXPECT_EQ(hash.GetList(0xFFFFFFFF, 65535), lists + 0xFFFE0001 % 17);
}

}  // namespace
