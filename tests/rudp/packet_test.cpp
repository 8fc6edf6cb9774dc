// Packets and the memory for repeats: no sockets, and a clock that the tests set.
#include <gtest/gtest.h>

#include <list>
#include <random>
#include <string>
#include <vector>

#include "rudp/RUdpMsg.h"
#include "rudp/RUdpTIDMap.h"
#include "tests/rudp/test_env.h"

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
    EXPECT_EQ(copy.GetHost(), 9u);
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

// What a map remembers, in the plainest way.
class Model {
public:
    explicit Model(size_t capacity) : m_Capacity(capacity) {}

    bool Test(int64_t max_age, uint32_t host, uint16_t port, uint32_t tid) {
        const auto is_old = [&](int64_t age) { return age < 0 || age > max_age; };
        while (!m_Entries.empty() && is_old(fixed_time - m_Entries.front().since)) {
            m_Entries.pop_front();
        }
        for (auto i = m_Entries.begin(); i != m_Entries.end(); ++i) {
            if (i->host == host && i->port == port) {
                const bool repeat = i->tid == tid;
                i->tid = tid;
                if (!repeat && &*i != &m_Entries.back()) {
                    i->since = fixed_time;
                    m_Entries.splice(m_Entries.end(), m_Entries, i);
                }
                return repeat;
            }
        }
        m_Entries.push_back({host, port, tid, fixed_time});
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
    size_t m_Capacity;
};

// Any traffic of 80 peers, most of it close together; at times after 2^32 microseconds (and a bit),
// at times with the clock set back.
TEST(TIDMap, RemembersTheLastOfEachPeer) {
    const int64_t steps[] = {0, 0, 0, 0, 1, 1, 2, 50, 51, 4294970, -1};
    const struct {
        unsigned int nodes, grow_by, buckets;
    } table[] = {{0, 32, 17}, {5, 3, 17}, {5, 0, 17}, {1, 0, 1}, {0, 0, 17}, {40, 0, 3}};
    for (const auto& row : table) {
        std::vector<CRUdpTIDMap::Node> nodes(row.nodes);
        fixed_time = 1000000000000;
        CRUdpTIDMap map(50, nullptr, row.buckets, nodes.data(), row.nodes, row.grow_by);
        Model model(row.grow_by != 0 ? 80 : row.nodes);
        std::mt19937 random(1);
        for (int i = 0; i < 20000; ++i) {
            const uint32_t host = 0x0A000000 + static_cast<uint32_t>(random() % 10);
            const uint16_t port = static_cast<uint16_t>(2055 + random() % 8);
            const uint32_t tid = static_cast<uint32_t>(random() % 2);
            fixed_time += steps[random() % (i % 50 == 0 ? std::size(steps) : 6)];
            map.RemoveOldEntries();
            ASSERT_EQ(map.DuplicateTestAndSet(host, port, tid), model.Test(50, host, port, tid))
                << "message " << i << ", " << row.nodes << " nodes, growing by " << row.grow_by;
        }
    }
    fixed_time = 0;
}

}  // namespace
