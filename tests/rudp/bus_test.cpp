// Messages from a client to a server in another network namespace, on a bad road.
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "msg/Message.h"
#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "net/SvcAddress.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "tests/support/Host.h"

namespace {

using Numbers = std::vector<unsigned long>;
const unsigned short port = 2060;
const char* const client_ip = "10.77.0.1";
const char* const server_ip = "10.77.0.2";
const char* const server_group = "239.77.0.2";
const char* const relay_group = "239.77.0.1";
const char* const add_netem =
    "tc qdisc add dev eth0 root netem delay 5ms reorder 25% 50% loss 15% duplicate 15% 2>/dev/null";

CInetAddress at_port(const char* ip) {
    CInetAddress address;
    address.SetAddress(ip, port);
    return address;
}

unsigned long network_order(const char* ip) {
    return htonl(static_cast<uint32_t>(at_port(ip).GetIP()));
}

// One end of a relay. What comes in there is treated by the pattern of 5: '.' passes, 'x' is lost,
// '2' is repeated, '>' is held back until after the next one.
struct RelayEnd {
    const char* pattern;
    CInetSocket socket{};
    CInetAddress sender{};
    size_t count = 0;
    std::string held{};

    void PassOn(RelayEnd& out, const CInetAddress& to) {
        char buf[2048];
        const int length = std::max(socket.Read(&sender, buf, sizeof buf), 0);
        const std::string datagram(buf, static_cast<size_t>(length));
        const auto send = [&](const std::string& bytes) {
            out.socket.Write(&to, bytes.data(), static_cast<int>(bytes.size()));
        };
        const char fate = pattern[count++ % 5];
        if (fate == '>') {
            held = datagram;
            return;
        }
        for (int copies = fate == 'x' ? 0 : fate == '2' ? 2 : 1; copies > 0; --copies) {
            send(datagram);
        }
        if (!held.empty()) {
            send(std::exchange(held, ""));
        }
    }
};

class Bus : public testing::Test {
protected:
    // Sends messages 1 to 10 to the server or to the relay and returns what the server delivers: as
    // many as expected, or until nothing happens for a time.
    Numbers Travel(const char* to, const char* relay_to, unsigned char type, size_t expected) {
        std::atomic<bool> sent{false};
        std::thread sender([&] {
            CMessage msg(16, 16);
            for (unsigned long number = 1; number <= 10; ++number) {
                msg.SetDword(1, number);
                EXPECT_TRUE(client.SendMsg({at_port(to).GetIP(), port}, &msg, type)) << number;
            }
            sent = true;
        });
        Numbers delivered;
        CMessage msg(16, 16);
        pollfd ready[] = {
            {server.GetSocket(), POLLIN, 0}, {front.socket, POLLIN, 0}, {back.socket, POLLIN, 0}};
        for (;;) {
            const bool all_sent = sent;
            const int patience = !all_sent ? 20 : delivered.size() < expected ? 2000 : 0;
            if (poll(ready, 3, patience) == 0 && all_sent) {
                break;
            }
            if (ready[0].revents != 0 && server.WaitForMsg(&msg, 0)) {
                delivered.push_back(msg.GetDword(1));
            }
            if (ready[1].revents != 0) {
                front.PassOn(back, at_port(relay_to));
            }
            if (ready[2].revents != 0) {
                back.PassOn(front, front.sender);
            }
        }
        sender.join();
        return delivered;
    }

    CRUdpLayer3Server server;
    CRUdpLayer3Client client{0, 1000};
    RelayEnd front{".x2>."};
    RelayEnd back{".2>x."};
};

TEST_F(Bus, MessagesOnABadRoad) {
    const struct {
        const char* server;
        const char* relay;
        unsigned char type;
        Numbers delivered;  // with the relay on the road
    } table[] = {
        {server_ip, client_ip, 0, {1, 3, 5, 4, 6, 8, 10, 9}},
        {server_group, relay_group, 0, {1, 3, 5, 4, 6, 8, 10, 9}},
        {server_ip, client_ip, 'M', {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {server_group, relay_group, 'M', {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
    };
    if (!Host::Prepare()) {
        GTEST_SKIP() << Host::NEEDED;
    }
    const Host here;
    const Host there;
    ASSERT_TRUE(Host::Connect(here, client_ip, there, server_ip));
    {
        const Host::Scope on(there);
        ASSERT_TRUE(server.Open(port, nullptr, nullptr, nullptr));
        ASSERT_TRUE(server.JoinMcastGroup(network_order(server_group), network_order(server_ip)));
    }
    const Host::Scope on(here);
    ASSERT_TRUE(client.SetCliOptions(16, 4000, false, 0, nullptr, false));
    ASSERT_TRUE(client.Open(client_ip, nullptr));

    const bool netem = here.Run(add_netem) == 0 && there.Run(add_netem) == 0;
    puts(netem ? "netem on the road" : "no netem in this kernel: a relay takes its place");
    if (!netem) {
        ASSERT_EQ(
            front.socket.Open(false) | front.socket.Bind(port, nullptr) |
                front.socket.JoinMcastGroup(network_order(relay_group), network_order(client_ip)) |
                back.socket.Open(false) | back.socket.Bind(0, client_ip),
            0);
    }
    for (const auto& row : table) {
        const Numbers got = Travel(netem ? row.server : row.relay, row.server, row.type,
                                   netem ? SIZE_MAX : row.delivered.size());
        if (netem) {  // all messages and some datagrams arrive, a late repeat once more
            const size_t different = std::set<unsigned long>(got.begin(), got.end()).size();
            EXPECT_GE(different, row.type == 'M' ? 10u : 1u) << "to " << row.server;
        } else {
            EXPECT_EQ(got, row.delivered) << "to " << row.server << ", type " << int{row.type};
        }
    }
}

}  // namespace
