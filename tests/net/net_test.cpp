// Addresses from texts, and sockets on loopback.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "net/SvcAddress.h"

namespace {

TEST(InetAddress, Texts) {
    const std::string longest_name(79, 'a');
    const std::string long_name(80, 'a');
    const struct {
        const char* text;
        const char* ip;
        unsigned short port;
    } table[] = {
        {"10.1.2.3", "10.1.2.3", 2060},
        {"10.1.2.3:x", "10.1.2.3", 0},
        {"10.1.2.3:70000", "10.1.2.3", 4464},
        {"10.1.2.3:99999999999", "10.1.2.3", 65535},  // saturates at 32 bits
        {"255.105.40.0:95:96", "255.105.40.0", 95},
        {"1..2.3", "1.0.2.3", 2060},
        {"1.2.3", "1.2.0.3", 2060},  // looked up as a name, which the system reads
    };
    for (const auto& row : table) {
        CInetAddress address;
        EXPECT_EQ(address.SetAddress(row.text, 2060), 0) << row.text;
        char text[16];
        address.GetIP(text);
        EXPECT_STREQ(text, row.ip);
        EXPECT_EQ(address.GetPort(), row.port) << row.text;
    }
    CInetAddress address;
    CInetAddress local;
    ASSERT_EQ(address.SetAddress("localhost:95", 1), local.SetLocalAddress(95));
    for (const char* text : {"1.2.3.4.5", "1.2.3.256", "1.2.3.4294967297:80", "", ":96",
                             longest_name.c_str(), long_name.c_str()}) {
        EXPECT_EQ(address.SetAddress(text, 96), -1) << text;
    }
    EXPECT_FALSE(address != local) << "localhost is the machine's own name; nothing has changed it";
}

TEST(SvcAddress, ComparesHostAndPortEachOnItsOwn) {
    const CSvcAddress one(1, 2);
    const CSvcAddress two(2, 1);
    for (const auto& [a, b] : {std::pair(one, two), std::pair(two, one)}) {
        EXPECT_TRUE(a < b) << "by host or by port";
        EXPECT_TRUE(a > b);
        EXPECT_FALSE(a == b);
    }
    CSvcAddress same(3, 2);
    same.SetHost(0xFFFFFFFFUL + 2);
    EXPECT_TRUE(one == same);
    EXPECT_FALSE(one < same);
    EXPECT_FALSE(one > same);
    EXPECT_TRUE(same == CSvcAddress(0xFFFFFFFFUL + 2, 2)) << "where a long has 64 bits, too";
}

TEST(InetSocket, Datagrams) {
    CInetSocket one;
    CInetSocket two;
    EXPECT_EQ(one.WaitForRead(0), -1);
    ASSERT_EQ(one.Open(false) | two.Open(false), 0);
    EXPECT_EQ(one.Bind(0, "1.2.3.256"), -1);
    ASSERT_EQ(one.Bind(0, "127.0.0.1"), 0) << "the name of no address leaves the socket open";
    CInetAddress to;
    socklen_t size = sizeof(sockaddr_in);
    ASSERT_EQ(getsockname(one, to.GetAddress(), &size), 0);
    ASSERT_EQ(two.Bind(to.GetPort(), nullptr), 0) << "the port can be shared";

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(one.WaitForRead(60), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(59));
    EXPECT_EQ(two.Write(&to, "hello", 5), 5);
    EXPECT_GT(one.WaitForRead(0xFFFFFFFF), 0);
    char buf[4] = {};
    CInetAddress from;
    EXPECT_EQ(one.Read(&from, buf, 3), 3);
    EXPECT_STREQ(buf, "hel");
    EXPECT_FALSE(from != to);

    CInetSocket three;  // as on a stream
    ASSERT_EQ(three.Open(false) | connect(three, to.GetAddressPtr(), sizeof(sockaddr_in)), 0);
    EXPECT_EQ(three.Write("12", 2) + three.Write("3", 1), 3);
    EXPECT_EQ(one.SetBlocking(false), 0);
    EXPECT_EQ(one.Read(buf, 3), 3);
    EXPECT_STREQ(buf, "123");
    EXPECT_EQ(one.Read(buf, 3), -1);
    EXPECT_EQ(one.Bind(0, "192.0.2.1"), -1);
    EXPECT_EQ(one, -1) << "not a local address: closed";
}

TEST(InetSocket, RefusesDescriptorsBeyondAnFdSet) {
    const rlimit limit = {FD_SETSIZE + 16, FD_SETSIZE + 16};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "this system permits fewer descriptors";
    }
    while (dup(0) < FD_SETSIZE - 1) {
    }
    CInetSocket sock;
    EXPECT_EQ(sock.Open(false), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(sock, -1);
    EXPECT_EQ(dup(0), FD_SETSIZE) << "the descriptor was closed";
    for (int fd = 3; fd <= FD_SETSIZE; ++fd) {
        close(fd);
    }
}

}  // namespace
