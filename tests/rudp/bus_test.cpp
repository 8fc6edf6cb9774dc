// Messages from a client to a server in another network namespace, on a bad road.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "msg/Message.h"
#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "net/SvcAddress.h"
#include "rudp/RUdpLayer3Client.h"
#include "rudp/RUdpLayer3Server.h"
#include "tests/support/netns.h"

namespace {

const unsigned short port = 2060;
const unsigned long tag = 0x4E554D42;
const unsigned long last = 0xFFFF;  // number of the message that ends the server
const char* const client_ip = "10.77.0.1";
const char* const server_ip = "10.77.0.2";
const char* const server_group = "239.77.0.2";
const char* const relay_group = "239.77.0.1";

CSvcAddress service(const char* ip) {
    CInetAddress address;
    address.SetAddress(ip, port);
    return {address.GetIP(), port};
}

unsigned long network_order(const char* ip) {
    return htonl(static_cast<uint32_t>(service(ip).GetHost()));
}

// What the server tells of each message.
struct Delivery {
    unsigned long number, host;
    bool reliable;
};

// Makes the road bad, if this kernel can.
bool add_netem(const std::string& interface) {
    return NetNs::Run("tc qdisc add dev " + interface +
                      " root netem delay 5ms reorder 25% 50% loss 15% duplicate 15% 2>/dev/null");
}

// Receives until the last message comes, then as long as it is repeated. Tells of each message
// through the pipe, and first that it is ready.
int serve(int pipe_end) {
    CRUdpLayer3Server server;
    CMessage msg(16, 16);
    Delivery delivery = {0, service(client_ip).GetHost(), false};
    add_netem("eth0");
    if (!server.Open(port, nullptr, nullptr, nullptr) ||
        !server.JoinMcastGroup(network_order(server_group), network_order(server_ip)) ||
        write(pipe_end, &delivery, sizeof delivery) < 0) {
        return 2;
    }
    while (delivery.number != last) {
        if (!server.WaitForMsg(&msg, 30000)) {
            return 3;
        }
        delivery = {msg.GetDword(tag), msg.GetHost(), msg.GetRel()};
        if (write(pipe_end, &delivery, sizeof delivery) < 0) {
            return 4;
        }
    }
    server.WaitForMsg(&msg, 500);
    return 0;
}

struct Direction {
    std::string pattern;
    size_t count;
    std::string held;
};

// Stands in for the server towards the client and for the client towards the server. What passes
// in a direction is treated by a fixed pattern: '.' passes, 'x' is lost, '2' is repeated, '>' is
// held back until after the next one.
class Relay {
public:
    Relay(const char* server, const char* messages, const char* answers)
        : m_Messages{messages, 0, ""}, m_Answers{answers, 0, ""} {
        m_Server.SetAddress(server, port);
        EXPECT_EQ(m_Front.Open(false) | m_Front.Bind(port, nullptr) | m_Back.Open(false) |
                      m_Back.Bind(0, client_ip) | pipe(m_Stop) |
                      m_Front.JoinMcastGroup(network_order(relay_group), network_order(client_ip)),
                  0);
        m_Thread = std::thread([this] { Run(); });
    }
    ~Relay() {
        close(m_Stop[1]);
        m_Thread.join();
        close(m_Stop[0]);
    }

private:
    void Run() {
        for (;;) {
            pollfd ready[] = {{m_Stop[0], POLLIN, 0}, {m_Front, POLLIN, 0}, {m_Back, POLLIN, 0}};
            poll(ready, 3, -1);
            CInetAddress ignored;
            if (ready[0].revents != 0) {
                return;
            }
            if (ready[1].revents != 0) {
                Pass(m_Front, m_Client, m_Back, m_Server, m_Messages);
            }
            if (ready[2].revents != 0) {
                Pass(m_Back, ignored, m_Front, m_Client, m_Answers);
            }
        }
    }

    static void Pass(CInetSocket& in, CInetAddress& from, CInetSocket& out, const CInetAddress& to,
                     Direction& direction) {
        char buf[2048];
        const std::string datagram(
            buf, static_cast<size_t>(std::max(in.Read(&from, buf, sizeof buf), 0)));
        const char fate = direction.pattern[direction.count++ % direction.pattern.size()];
        if (fate == '>') {
            direction.held = datagram;
            return;
        }
        std::vector<std::string> passing(fate == 'x' ? 0 : fate == '2' ? 2 : 1, datagram);
        if (!direction.held.empty()) {
            passing.push_back(direction.held);
            direction.held.clear();
        }
        for (const auto& bytes : passing) {
            out.Write(&to, bytes.data(), static_cast<int>(bytes.size()));
        }
    }

    CInetSocket m_Front;
    CInetSocket m_Back;
    int m_Stop[2];
    CInetAddress m_Server;
    CInetAddress m_Client;
    Direction m_Messages;
    Direction m_Answers;
    std::thread m_Thread;
};

// The numbers of what the server delivers next, as many or until it is quiet for a time.
std::vector<unsigned long> deliveries(int pipe_end, size_t count, int quiet_ms, bool reliable) {
    std::vector<unsigned long> numbers;
    pollfd ready = {pipe_end, POLLIN, 0};
    Delivery delivery;
    while (numbers.size() < count && poll(&ready, 1, quiet_ms) == 1 &&
           read(pipe_end, &delivery, sizeof delivery) == sizeof delivery) {
        numbers.push_back(delivery.number);
        EXPECT_EQ(delivery.host, service(client_ip).GetHost());
        EXPECT_EQ(delivery.reliable, reliable);
    }
    return numbers;
}

void send(CRUdpLayer3Client& client, const char* to, unsigned long number, unsigned char type) {
    CMessage msg(16, 16);
    msg.SetDword(tag, number);
    EXPECT_TRUE(client.SendMsg(service(to), &msg, type)) << "message " << number;
}

const unsigned char datagram = CRUdpLayer3Client::DATAGRAM;
const unsigned char message = CRUdpLayer3Client::MESSAGE;

const struct Trip {
    const char* name;
    const char* server;
    const char* relay;
    unsigned char type;
    std::vector<unsigned long> delivered;  // when the relay is on the road
} trips[] = {
    {"datagrams", server_ip, client_ip, datagram, {1, 3, 5, 4, 6, 8, 10, 9}},
    {"datagrams to the group", server_group, relay_group, datagram, {1, 3, 5, 4, 6, 8, 10, 9}},
    {"messages", server_ip, client_ip, message, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
    {"messages to the group", server_group, relay_group, message, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
};

// With netem chance decides: of the datagrams some arrive, of the messages all, and a repeat that
// is late enough is delivered again.
void travel_by_netem(CRUdpLayer3Client& client, int pipe_end, const Trip& trip) {
    std::set<unsigned long> expected;
    for (unsigned long i = 1; i <= 10; ++i) {
        send(client, trip.server, i, trip.type);
        expected.insert(i);
    }
    const auto delivered = deliveries(pipe_end, SIZE_MAX, 1000, trip.type == message);
    std::set<unsigned long> seen(delivered.begin(), delivered.end());
    EXPECT_TRUE(std::includes(expected.begin(), expected.end(), seen.begin(), seen.end()));
    EXPECT_TRUE(trip.type == message ? seen == expected : !seen.empty());
}

void travel_by_relay(CRUdpLayer3Client& client, int pipe_end, const Trip& trip) {
    Relay relay(trip.server, ".x2>.", ".2>x");
    for (unsigned long i = 1; i <= 10; ++i) {
        send(client, trip.relay, i, trip.type);
    }
    EXPECT_EQ(deliveries(pipe_end, trip.delivered.size(), 30000, trip.type == message),
              trip.delivered);
}

TEST(Bus, MessagesOnABadRoad) {
    if (!NetNs::Enter()) {
        GTEST_SKIP() << "network namespaces are not allowed here";
    }
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    NetNsChild server(client_ip + std::string("/24"), server_ip + std::string("/24"),
                      [&] { return serve(ends[1]); });
    ASSERT_TRUE(server.Joined());
    ASSERT_EQ(deliveries(ends[0], 1, 30000, false).size(), 1u) << "the server does not start";
    close(ends[1]);
    const bool netem = add_netem("peer");
    if (!netem) {
        printf("no netem in this kernel: a relay with a fixed pattern takes its place\n");
    }

    CRUdpLayer3Client client(0, 1000);
    ASSERT_TRUE(client.SetCliOptions(16, 16 * 150, false, 0, nullptr, false));
    ASSERT_TRUE(client.Open(client_ip, nullptr));
    for (const Trip& trip : trips) {
        SCOPED_TRACE(trip.name);
        (netem ? travel_by_netem : travel_by_relay)(client, ends[0], trip);
    }
    send(client, server_ip, last, message);
    EXPECT_EQ(deliveries(ends[0], SIZE_MAX, 30000, true), std::vector<unsigned long>{last})
        << "something was delivered twice";
    EXPECT_EQ(server.Wait(), 0);
    close(ends[0]);
}

}  // namespace
