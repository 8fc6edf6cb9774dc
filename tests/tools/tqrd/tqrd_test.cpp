// The client of the control server, and how it reads lines.

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/loopback.h"
#include "tools/server/ControlServer.h"
#include "tools/tqrd/ChannelTable.h"
#include "tools/tqrd/SourceNotes.h"
#include "tools/tqrd/SourceText.h"
#include "tools/tqrd/TqrdClient.h"

namespace {

using std::chrono::milliseconds;

const unsigned long LOOPBACK = 0x7F000001;

TEST(TqrdClient, TalksToAServer) {
    ControlServer server;
    for (const char* line : {"SET NIC_IPADDR=10.0.0.1", "CFG GPO 3 SRCA=\"tqs://1:2\", N=x",
                             "CFG GPO 9 SRCA=10.0.0.9:94/2", "CFG GPO 10 N=1", "GPI 3 LH"}) {
        ASSERT_EQ(server.Apply(line), "");
    }
    TqrdClient client;
    ChannelTable table;
    client.Connect(CSvcAddress(LOOPBACK, server.Listen("127.0.0.1", 0)), milliseconds(2000));
    client.Send("SET\nCFG GPO\nADD GPI 3\nGPO 9 xxL");
    for (int i = 0; i < 100 && table.Channel(9).output.empty(); ++i) {
        server.Step(10);
        client.Serve();
        for (std::string line; client.Next(line);) {
            table.Take(line);
        }
    }
    EXPECT_EQ(table.InterfaceAddress().value_or(0), url2ip("10.0.0.1"));
    EXPECT_EQ(table.Channel(3).source, "\"tqs://1:2\"");
    EXPECT_EQ(DescribeSource(table.Channel(3).config), "writes on the bus to 1:2");
    EXPECT_EQ(table.Channel(3).input, "LHHHH");
    EXPECT_EQ(DescribeSource(table.Channel(9).config), "input 2 of 10.0.0.9:94");
    EXPECT_EQ(table.Channel(9).output, "HHLHH");
    EXPECT_FALSE(table.Channel(10).is_configured);
    EXPECT_EQ(table.Find(KIND_BUS), std::vector<int>({3}));
}

TEST(TqrdClient, EndsInTime) {
    LoopbackServer server;
    const CSvcAddress address(LOOPBACK, server.Port());
    TqrdClient client;
    std::string line;
    client.Connect(address, milliseconds(2000));
    ASSERT_TRUE(server.Accept());
    server.Send("GPI 1 H\r\nGPI");
    const auto end = [] { return TqrdClient::Clock::now() + milliseconds(2000); };
    EXPECT_TRUE(client.Wait(line, end()));
    EXPECT_EQ(line, "GPI 1 H");
    EXPECT_FALSE(client.Wait(line, TqrdClient::Clock::now() + milliseconds(30))) << "half a line";
    EXPECT_TRUE(client.IsConnected());
    server.Send(std::string(5000, 'x'));
    EXPECT_FALSE(client.Wait(line, end()));
    EXPECT_EQ(client.Problem(), "a line is too long");

    client.Connect(address, milliseconds(2000));
    ASSERT_TRUE(server.Accept());
    server.Send("GPI 2 H\n");
    server.Drop();
    EXPECT_TRUE(client.Wait(line, end())) << "came before the end";
    EXPECT_FALSE(client.Wait(line, end()));
    EXPECT_EQ(client.Problem(), "the server closed the connection");

    client.Connect(CSvcAddress(LOOPBACK, 1), milliseconds(2000));
    EXPECT_FALSE(client.Wait(line, end()));
    EXPECT_EQ(client.Error(), ECONNREFUSED);
}

TEST(SourceNotes, ExplainSurprises) {
    const struct {
        const char* text;
        const char* meaning;
        const char* note;  // part of the first one
    } table[] = {
        {"SRCA=1:2", "writes on the bus to 1:2", nullptr},
        {"SRCA=\"tqs://0x12:0x34\"", "writes on the bus to 18:52", nullptr},
        {"SRCA=10.0.0.9:94/3 N=1.5", "input 3 of 10.0.0.9:94", nullptr},
        {"CFG GPO 5 N=1,SRCA=10.0.0.9/3:94", "input 3 of 10.0.0.9:93", "10.0.0.9:94/3"},
        {"SRCA=1:300", "writes on the bus to 1:44", "300 overflows"},
        {"SRCA=010:2", "writes on the bus to 8:2", "octal"},
        {"SRCA=1:2:3", "writes on the bus to 1:2", "ignored: \":3\""},
        {"SRCA=0x10000:0", "writes on the bus to 65536:0", "24 bits"},
        {"SRCA=3:7,X=1.5", "input 1 of 0.0.0.3:7", "it is: writes on the bus to 3:7."},
        {"SRCA=10.0.0.9,3", "input 1 of 10.0.0.9:93", "ends at the comma: \"3\""},
        {"SRCA=10.9", "input 1 of 10.0.0.9:93", "read as 10.0.0.9"},
        {"SRCA=10.0.0.9:0x5d", "input 1 of 10.0.0.9:0", "ports are decimal"},
        {"SRCA=10.0.0.9/0", "input 256 of 10.0.0.9:93", "1 to 256"},
        {"SRCA=server.lan/3", "nothing", "\"server.lan\" is not an address"},
        {"SRCA=none", "nothing", "begins with a digit"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.text);
        const auto reading = ReadSource(row.text);
        ASSERT_TRUE(reading);
        EXPECT_EQ(DescribeSource(reading->config), row.meaning);
        ASSERT_EQ(reading->notes.empty(), row.note == nullptr) << reading->notes[0];
        if (row.note != nullptr) {
            EXPECT_NE(reading->notes[0].find(row.note), std::string::npos) << reading->notes[0];
        }
    }
    EXPECT_FALSE(ReadSource("srca=1:2"));
    EXPECT_FALSE(ReadSource("CFG GPO 33 SRCA=1:2"));
}

}  // namespace
