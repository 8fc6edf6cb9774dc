// Messages from a client to a server in another network namespace, on a bad road.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

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
#include "tests/support/netns.h"

namespace {

using Numbers = std::vector<unsigned long>;
const unsigned short port = 2060;
const unsigned long last = 99;  // the message that ends the server
const char* const client_ip = "10.77.0.1";
const char* const server_ip = "10.77.0.2";
const char* const server_group = "239.77.0.2";
const char* const relay_group = "239.77.0.1";

CInetAddress at_port(const char* ip) {
    CInetAddress address;
    address.SetAddress(ip, port);
    return address;
}

unsigned long network_order(const char* ip) {
    return htonl(static_cast<uint32_t>(at_port(ip).GetIP()));
}

// Makes the road that leaves by the interface bad, if this kernel can.
bool add_netem(const std::string& interface) {
    return NetNs::Run("tc qdisc add dev " + interface +
                      " root netem delay 5ms reorder 25% 50% loss 15% duplicate 15% 2>/dev/null");
}

// Receives until the last message comes, then for as long as it is repeated. Tells the number of
// each through the pipe, and first that it is ready. Returns the exit status.
int serve(int pipe_end) {
    CRUdpLayer3Server server;
    CMessage msg(16, 16);
    unsigned long number = 0;
    add_netem("eth0");
    bool good = server.Open(port, nullptr, nullptr, nullptr) &&
                server.JoinMcastGroup(network_order(server_group), network_order(server_ip));
    while (good && write(pipe_end, &number, sizeof number) > 0 && number != last) {
        good = server.WaitForMsg(&msg, 30000);
        number = msg.GetDword(1);
    }
    server.WaitForMsg(&msg, 500);
    return good ? 0 : 1;
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

void send(CRUdpLayer3Client& client, const char* to, unsigned long number, unsigned char type) {
    CMessage msg(16, 16);
    msg.SetDword(1, number);
    EXPECT_TRUE(client.SendMsg({at_port(to).GetIP(), port}, &msg, type)) << number;
}

// Sends messages 1 to 10, through the relay if it stands on the road, and returns what the server
// delivers: as many as expected, or until nothing happens for a time.
Numbers travel(CRUdpLayer3Client& client, const char* server, const char* relay, unsigned char type,
               int pipe_end, size_t expected) {
    RelayEnd front{".x2>."};
    RelayEnd back{".2>x."};
    if (relay != nullptr) {
        EXPECT_EQ(
            front.socket.Open(false) | front.socket.Bind(port, nullptr) |
                front.socket.JoinMcastGroup(network_order(relay_group), network_order(client_ip)) |
                back.socket.Open(false) | back.socket.Bind(0, client_ip),
            0);
    }
    std::atomic<bool> sent{false};
    std::thread sender([&] {
        for (unsigned long number = 1; number <= 10; ++number) {
            send(client, relay != nullptr ? relay : server, number, type);
        }
        sent = true;
    });
    Numbers delivered;
    pollfd ready[] = {{pipe_end, POLLIN, 0}, {front.socket, POLLIN, 0}, {back.socket, POLLIN, 0}};
    while (poll(ready, 3, sent && delivered.size() >= expected ? 0 : 2000) > 0 || !sent) {
        unsigned long number = 0;
        if (ready[0].revents != 0 && read(pipe_end, &number, sizeof number) > 0) {
            delivered.push_back(number);
        }
        if (ready[1].revents != 0) {
            front.PassOn(back, at_port(server));
        }
        if (ready[2].revents != 0) {
            back.PassOn(front, front.sender);
        }
    }
    sender.join();
    return delivered;
}

TEST(Bus, MessagesOnABadRoad) {
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
    if (!NetNs::Enter()) {
        GTEST_SKIP() << "network namespaces are not allowed here";
    }
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    NetNsChild server("10.77.0.1/24", "10.77.0.2/24", [&] { return serve(ends[1]); });
    close(ends[1]);
    unsigned long number = 0;
    ASSERT_TRUE(server.Joined() && read(ends[0], &number, sizeof number) > 0);
    CRUdpLayer3Client client(0, 1000);
    ASSERT_TRUE(client.SetCliOptions(16, 16 * 150, false, 0, nullptr, false));
    ASSERT_TRUE(client.Open(client_ip, nullptr));

    const bool netem = add_netem("peer");
    puts(netem ? "netem on the road" : "no netem in this kernel: a relay takes its place");
    for (const auto& row : table) {
        const Numbers got = travel(client, row.server, netem ? nullptr : row.relay, row.type,
                                   ends[0], netem ? SIZE_MAX : row.delivered.size());
        if (!netem) {
            EXPECT_EQ(got, row.delivered) << "to " << row.server << ", type " << int{row.type};
        } else {  // all messages and some datagrams arrive, a late repeat once more
            const size_t different = std::set<unsigned long>(got.begin(), got.end()).size();
            EXPECT_GE(different, row.type == 'M' ? 10u : 1u) << "to " << row.server;
        }
    }
    send(client, server_ip, last, 'M');
    EXPECT_GT(read(ends[0], &number, sizeof number), 0);
    EXPECT_EQ(number, last) << "something was delivered twice";
    EXPECT_EQ(server.Wait(), 0);
    close(ends[0]);
}

}  // namespace
