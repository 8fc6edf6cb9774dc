// A program that follows pins, on a bus between two hosts whose devices are simulated.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <memory>

#include "net/SvcAddress.h"
#include "tests/support/Host.h"
#include "tools/bus/PinFollower.h"

namespace {

const uint32_t INPUT = 0x1020D;
const uint32_t OUTPUT = 0x10208;
const uint32_t DEVICE = 0x0A4D0001;

// A device that has all addresses, with every pin low.
class Device {
public:
    explicit Device(const char* address) : m_client(0, 0) {
        m_server.Open(BUS_PORT, nullptr, nullptr, nullptr);
        m_server.JoinMcastGroup(htonl(DEFAULT_GROUP), inet_addr(address));
        m_client.Open(address, nullptr);
    }

    void Serve() {
        CMessage message(16, 16);
        while (m_server.WaitForMsg(&message, 0)) {
            reads += message.GetId() == ID_READ ? 1 : 0;
            if (message.GetId() == ID_READ && answers) {
                message.SetId(ID_REPORT);
                message.SetDword(TAG_REFERS_TO, message.GetDword(TAG_REQUEST_ID));
                for (unsigned int i = 0; i < message.GetItemCount(); ++i) {
                    if (IsPinItem(*message.GetItem(i))) {
                        message.SetByte(message.GetItem(i)->m_nTag, 1);
                    }
                }
                Send(message);
            }
        }
    }

    void Send(const CMessage& message) {
        for (int i = 0; i < 2; ++i) {
            m_client.SendMsg(CSvcAddress(DEFAULT_GROUP, REPORT_PORT), &message,
                             CRUdpLayer3Client::DATAGRAM);
        }
    }

    int Socket() const { return m_server.GetSocket(); }

    bool answers = true;
    int reads = 0;

private:
    CRUdpLayer3Server m_server;
    CRUdpLayer3Client m_client;
};

class PinFollowerTest : public testing::Test {
protected:
    PinFollowerTest() : m_prepared(Host::Prepare()) {}

    void SetUp() override {
        if (!m_prepared) {
            GTEST_SKIP() << Host::NEEDED;
        }
        ASSERT_TRUE(Host::Connect(there, "10.77.0.1", here, "10.77.0.2"));
        there.Run("ip addr add 10.77.0.3/24 dev eth0");
        device = Add("10.77.0.1");
    }

    std::unique_ptr<Device> Add(const char* address) {
        const Host::Scope on(there);
        return std::make_unique<Device>(address);
    }

    void Start(double every, FollowPolicy::Reads reads = FollowPolicy::Reads::Heard) {
        FollowPolicy policy;
        policy.reads = reads;
        policy.every = every;
        policy.answer_time = 0.25;
        policy.forgets_after = 2;
        BusSettings settings;
        settings.iface = "eth0";
        const Host::Scope on(here);
        follower = std::make_unique<PinFollower>(settings, policy);
        follower->on_change = [this](const PinChange& change) { changes.push_back(change); };
        follower->on_device = [this](uint32_t host, PinFollower::News what) {
            EXPECT_EQ(host, DEVICE);
            news.push_back(what);
        };
    }

    // Serves both ends until the condition holds.
    bool Await(const std::function<bool()>& condition, double seconds = 10) {
        const TimePoint end = After(seconds);
        while (!condition() && Now() < end) {
            std::vector<pollfd> fds = {{device->Socket(), POLLIN, 0}};
            for (const int socket : follower->Descriptors()) {
                fds.push_back({socket, POLLIN, 0});
            }
            poll(fds.data(), fds.size(), MillisecondsUntil(std::min(end, follower->NextTime())));
            device->Serve();
            if (fds[0].revents == 0) {
                ++wakes;
                const Host::Scope on(here);
                follower->Serve();
            }
        }
        return condition();
    }

    std::optional<Level> LevelOf(uint32_t tag) const {
        const PinState* const state = follower->States().Find(tag);
        return state == nullptr ? std::nullopt : state->level;
    }

    const bool m_prepared;
    Host there;
    Host here;
    std::unique_ptr<Device> device;
    std::unique_ptr<PinFollower> follower;
    std::vector<PinChange> changes;
    std::vector<PinFollower::News> news;
    int wakes = 0;
};

TEST_F(PinFollowerTest, KnowsWhatIsAnswered) {
    Start(0.3);
    follower->Want({0x102, 8});
    ASSERT_TRUE(Await([&] { return LevelOf(OUTPUT) == Level::Low; }));
    EXPECT_EQ(follower->OwnerOf(0x102), DEVICE);
    CMessage report(16, 16);
    report.SetId(ID_REPORT);
    report.SetByte(0x7000D, 0);
    device->Send(report);
    ASSERT_TRUE(Await([&] { return LevelOf(0x7000D) == Level::Low; })) << "a heard pin is read";

    device->answers = false;
    const int before = device->reads;
    ASSERT_TRUE(Await([&] { return news.size() == 2 && !LevelOf(OUTPUT) && !LevelOf(0x7000D); }));
    EXPECT_GE(device->reads - before, 3);
    EXPECT_TRUE(follower->IsUnanswered(0x102));
    EXPECT_EQ(changes.back().cause, PinChange::Cause::Forgotten);
    const PinFollower::Device& known = follower->Devices().at(DEVICE);
    EXPECT_TRUE(known.is_silent);
    EXPECT_GE(known.missed, 6U);
    EXPECT_GT(known.answer_time, 0);

    device->answers = true;
    ASSERT_TRUE(Await([&] { return LevelOf(OUTPUT) == Level::Low; }));
    EXPECT_FALSE(follower->States().Find(OUTPUT)->seen_changing);
    using News = PinFollower::News;
    EXPECT_EQ(news, (std::vector<News>{News::First, News::Silent, News::Back}));
}

// 10 s between two reads pass in half a second here.
TEST_F(PinFollowerTest, Sleeps) {
    Start(0.5);
    for (uint32_t address = 1; address <= 20; ++address) {
        Await([] { return false; }, 0.03);  // the pins appear one after the other
        follower->Want({address, 13});
    }
    Await([] { return false; }, 1);
    wakes = 0;
    Await([] { return false; }, 3);
    EXPECT_LE(wakes, 30);
    EXPECT_EQ(follower->Devices().at(DEVICE).missed, 0U);
}

TEST_F(PinFollowerTest, KnowsNothingWithoutTheBus) {
    if (ORVEX_EMULATOR[0] != '\0') {
        GTEST_SKIP() << "the emulator does not know IP_MULTICAST_IF";
    }
    Start(60, FollowPolicy::Reads::Addresses);
    follower->Want({0x102, 8});
    ASSERT_TRUE(Await([&] { return LevelOf(INPUT) == Level::Low; })) << "the whole address";
    EXPECT_GT(follower->NextTime(), After(50));
    const std::vector<int> sockets = follower->Descriptors();
    for (const char* loss : {"ip link set eth0 down", "ip link del eth0"}) {
        here.Run(loss);
        ASSERT_TRUE(Await([&] { return !follower->IsUp(); })) << loss;
        EXPECT_NE(follower->Problem(), "");
        EXPECT_FALSE(LevelOf(INPUT));
        EXPECT_TRUE(follower->States().Find(INPUT)->told) << "it was heard before";
        if (here.Run("ip link set eth0 up && ip route add 224.0.0.0/4 dev eth0") != 0) {
            ASSERT_TRUE(Host::Connect(there, "10.77.0.1", here, "10.77.0.2"));
            device = Add("10.77.0.1");
        }
        ASSERT_TRUE(Await([&] { return LevelOf(INPUT) == Level::Low; })) << loss;
        EXPECT_EQ(follower->Descriptors(), sockets);
    }
    EXPECT_TRUE(std::none_of(changes.begin(), changes.end(),
                             [](const PinChange& change) { return !change.after; }));
}

TEST_F(PinFollowerTest, FindsTwoDevicesWithOneAddress) {
    Start(0.3);
    follower->on_device = [](uint32_t host, PinFollower::News what) {
        EXPECT_FALSE(host == DEVICE && what == PinFollower::News::Silent)
            << "another answers for all that it has";
    };
    follower->Want({0x102, 8});
    ASSERT_TRUE(Await([&] { return LevelOf(OUTPUT) == Level::Low; }));
    EXPECT_TRUE(follower->Shared().empty());
    const std::unique_ptr<Device> second = Add("10.77.0.3");
    ASSERT_TRUE(Await([&] {
        second->Serve();
        return !follower->Shared().empty();
    }));
    EXPECT_EQ(SharedText(0x102, follower->Shared()[0x102], Names()),
              "1:2 is answered by 10.77.0.1 and 10.77.0.3: two devices have the same address");
    device->answers = false;
    ASSERT_TRUE(Await([&] {
        second->Serve();
        return follower->Devices().count(DEVICE) == 0;
    })) << "nobody misses it";
    ASSERT_TRUE(Await([&] { return follower->Devices().begin()->second.is_silent; }));
    EXPECT_FALSE(Await([&] { return follower->Devices().empty(); }, 3)) << "the pin is wanted";
}

// A device tells pins under another address for a moment, without being read there.
TEST(DeviceTable, ForgetsTheAddressesThatADeviceHadForAMoment) {
    const uint32_t before = 0x0A4D0101, after = 0x0A4D0165, other = 0x0A4D0102;
    DeviceTable table;
    const TimePoint now = Now();
    table.Hear(before, 0x102, 1, now);
    table.Answer(0x102, before, 0.001);
    table.Hear(after, 0x102, 2, now);
    table.Hear(other, 0x103, 3, now);
    const TimePoint later = Later(now, 1);
    EXPECT_EQ(table.FindSilent(later), std::vector<uint32_t>{other}) << "nobody else has its pins";
    EXPECT_EQ(table.Forget(now, later, [](uint32_t) { return false; }),
              std::vector<uint32_t>{after});
}

}  // namespace
