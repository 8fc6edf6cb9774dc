// Addresses from texts, and sockets on loopback.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "net/InetAddress.h"
#include "net/InetSocket.h"
#include "net/SvcAddress.h"

namespace {

CInetAddress local_address(int sock) {
    CInetAddress address;
    socklen_t size = sizeof(sockaddr_in);
    EXPECT_EQ(getsockname(sock, address.GetAddress(), &size), 0);
    return address;
}

TEST(InetAddress, Texts) {
    const std::string long_name(80, 'a');
    const struct {
        const char* text;
        int result;
        const char* ip;
        unsigned short port;
    } table[] = {
        {"10.1.2.3", 0, "10.1.2.3", 2060},
        {"10.1.2.3:94", 0, "10.1.2.3", 94},
        {"10.1.2.3:x", 0, "10.1.2.3", 0},
        {"10.1.2.3:70000", 0, "10.1.2.3", 4464},
        {"10.1.2.3:99999999999", 0, "10.1.2.3", 65535},  // saturates at 32 bits
        {"255.105.40.0:95:96", 0, "255.105.40.0", 95},
        {"1..2.3", 0, "1.0.2.3", 2060},
        {"0.0.0.0", 0, "0.0.0.0", 2060},  // looked up as a name, which the system reads
        {"1.2.3", 0, "1.2.0.3", 2060},    // the same
        {"1.2.3.4.5", -1, "9.9.9.9", 9},
        {"1.2.3.256", -1, "9.9.9.9", 9},
        {"1.2.3.4294967297:80", -1, "9.9.9.9", 9},
        {"", -1, "9.9.9.9", 9},
        {":95", -1, "9.9.9.9", 9},
        {long_name.c_str(), -1, "9.9.9.9", 9},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        CInetAddress address;
        address.SetAddress(0x09090909L, 9);
        EXPECT_EQ(address.SetAddress(row.text, 2060), row.result);
        char text[16];
        address.GetIP(text);
        EXPECT_STREQ(text, row.ip);
        EXPECT_EQ(address.GetPort(), row.port);
    }
}

TEST(InetAddress, LocalhostIsTheMachinesOwnName) {
    CInetAddress local;
    CInetAddress named;
    named.SetAddress(0L, 7);
    local.SetAddress(0L, 7);
    EXPECT_EQ(named.SetAddress("localhost:95", 1), local.SetLocalAddress(95));
    EXPECT_FALSE(named != local);
    local.SetAddress(static_cast<long>(named.GetIP()), 96);
    EXPECT_TRUE(named != local);
}

TEST(SvcAddress, Relations) {
    const CSvcAddress a(0x0A000009, 93);
    const CSvcAddress lower_host(0x0A000008, 94);
    EXPECT_TRUE(a == CSvcAddress(0x0A000009, 93));
    EXPECT_FALSE(a == CSvcAddress(0x0A000009, 94) || a == CSvcAddress(0x0A000008, 93));
    EXPECT_TRUE(a < lower_host && a > lower_host);  // each in one of the two
    EXPECT_FALSE(a < a || a > a);
}

TEST(InetSocket, Datagrams) {
    CInetSocket one;
    CInetSocket two;
    EXPECT_EQ(one.GetBytesAvailable(), 0);
    EXPECT_EQ(one.WaitForRead(0), -1);
    EXPECT_EQ(one.ForceClose(), 0);
    ASSERT_EQ(one.Open(false), 0);
    ASSERT_EQ(two.Open(false), 0);
    EXPECT_EQ(one.Bind(0, "1.2.3.256"), -1);
    EXPECT_NE(one, -1);
    ASSERT_EQ(one.Bind(0, "127.0.0.1"), 0);
    CInetAddress to = local_address(one);
    ASSERT_EQ(two.Bind(to.GetPort(), nullptr), 0) << "the port can be shared";
    EXPECT_GT(one.GetReadBufferSize(), 0);
    EXPECT_GT(one.GetWriteBufferSize(), 0);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(one.WaitForRead(60), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(59));
    EXPECT_EQ(two.Write(&to, "hello", 5), 5);
    EXPECT_GT(one.WaitForRead(0xFFFFFFFF), 0);
    char buf[3];
    CInetAddress from;
    EXPECT_EQ(one.Read(&from, buf, sizeof buf), 3);
    EXPECT_EQ(std::string(buf, 3), "hel");
    EXPECT_EQ(from.GetIP(), 0x7F000001u);
    EXPECT_EQ(from.GetPort(), to.GetPort());

    two.Close();
    ASSERT_EQ(two.Open(false), 0);
    EXPECT_EQ(two.Bind(0, "192.0.2.1"), -1);
    EXPECT_EQ(two, -1) << "not a local address: closed";
}

TEST(InetSocket, Stream) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(listen(listener, 1), 0);
    CInetAddress to = local_address(listener);
    CInetSocket sock;
    ASSERT_EQ(sock.Open(true), 0);
    ASSERT_EQ(connect(sock, to.GetAddressPtr(), sizeof(sockaddr_in)), 0);
    const int peer = accept(listener, nullptr, nullptr);

    char buf[10];
    EXPECT_EQ(sock.Write("abcdef", 6), 6);
    EXPECT_EQ(recv(peer, buf, 6, MSG_WAITALL), 6);
    EXPECT_EQ(sock.SetBlocking(false), 0);
    EXPECT_EQ(sock.Read(buf, sizeof buf), -1);
    ASSERT_EQ(send(peer, "1234", 4, 0), 4);
    ASSERT_GT(sock.WaitForRead(5000), 0);
    EXPECT_EQ(sock.GetBytesAvailable(), 4);
    EXPECT_EQ(sock.Read(buf, sizeof buf), 4);
    EXPECT_EQ(sock.SetBlocking(true), 0);
    ASSERT_EQ(send(peer, "56", 2, 0), 2);
    close(peer);
    EXPECT_EQ(sock.Read(buf, sizeof buf), 2);
    close(listener);
}

TEST(InetSocket, DescriptorThatFitsNoSet) {
    const rlimit limit = {FD_SETSIZE + 16, FD_SETSIZE + 16};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        GTEST_SKIP() << "so many descriptors are not allowed here";
    }
    std::vector<int> taken;
    do {
        taken.push_back(dup(0));
    } while (taken.back() != FD_SETSIZE - 1);
    CInetSocket sock;
    errno = 0;
    EXPECT_EQ(sock.Open(false), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(sock, -1);
    for (const int fd : taken) {
        close(fd);
    }
}

}  // namespace
