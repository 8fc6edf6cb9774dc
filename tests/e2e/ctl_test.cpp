// Reading, setting, watching and playing back with orvexctl.

#include <csignal>
#include <fstream>

#include "net/InetAddress.h"
#include "tests/e2e/Ctl.h"
#include "tests/support/Hex.h"

namespace {

const char* const GROUP = "239.192.255.4";

TEST_F(Ctl, GetsPins) {
    StartAll();
    ExpectRun({"get", "1:2"}, 0,
              "1:2:in1   H\n1:2:in2   L\n1:2:in3   H\n1:2:in4   H\n1:2:in5   L\n"
              "1:2:out1  H\n1:2:out2  H\n1:2:out3  H\n1:2:out4  H\n1:2:out5  H\n",
              "");
    ExpectRun({"-W", "0.6", "get", "258:in2", "1:2:c13", "7", "1:2:20", "-i", "eth0"}, 3,
              "1:2:in2  L\n1:2:in1  H\n", "orvexctl: no answer for 7, 1:2:c20\n");
    ExpectRun({"get", "-q", "-W", "0.1", "-g", "239.1.2.3", "1:2"}, 3, "", "");

    const auto json = Start(device, {"get", "--json", "-i", DEVICE_ADDRESS, "1:2:in5"});
    EXPECT_EQ(Finish(*json), 0) << "on the device itself";
    const std::vector<Json> lines = Lines(json->Out());
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0]["host"], DEVICE_ADDRESS);
    EXPECT_EQ(lines[0]["level"], "L");
    EXPECT_EQ(lines[0]["pin"], "1:2:in5");

    CInetSocket peer;
    CInetAddress group;
    OpenRaw(peer, 4000);
    group.SetAddress(GROUP, 2055);
    const auto get = StartListener(studio, {"get", "-W", "0.5", "7:out1"});
    const std::string reply =
        Hex("03000207 00000001 0000000000000000 494E4449 0002 FFFFFFFE 01 00000001 00000708 07 01");
    peer.Write(&group, reply.data(), static_cast<int>(reply.size()));
    EXPECT_EQ(Finish(*get), 3) << "a reply to another host";
}

TEST_F(Ctl, SetsPins) {
    StartAll();
    ExpectRun({"set", "1:2:out1=low", "258:out5=H,333", "1:2:in1=L"}, 0, "sent\n",
              "orvexctl: 1:2:out5: 333 ms becomes 310 ms\n"
              "orvexctl: 1:2:in1 is an input: devices do not set it\n");
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 Lxxxx"));
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 xxxxH DURATION:310"));
    for (const Words& more : {Words{}, Words{"--to", DEVICE_ADDRESS}}) {
        tqrd.heard.clear();
        Words arguments = {"set", "--reliable", "-j", "1:2:c7=L,500"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const auto ctl = Start(studio, arguments);
        EXPECT_EQ(Finish(*ctl), 0) << ctl->Err();
        const std::vector<Json> lines = Lines(ctl->Out());
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0]["reliable"], true);
        EXPECT_EQ(lines[0]["items"], Json::parse(R"([{"tag":66055,"type":"byte","value":66,
                  "pin":"1:2:out2","level":"L","duration":500}])"));
        EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 xLxxx DURATION:500"));
    }
    EXPECT_EQ(tqrd.heard.size(), 1U);
}

TEST_F(Ctl, DistinguishesRefusedFromUnanswered) {
    CInetSocket peer;
    OpenRaw(peer, 2060);
    const Words arguments = {"set", "-r", "-W", "5", "-t", DEVICE_ADDRESS, "1:2:out1=L"};
    const auto ctl = Start(studio, arguments);
    ASSERT_TRUE(Await([&] { return peer.WaitForRead(0) > 0; }));
    char packet[100];
    CInetAddress sender;
    ASSERT_GT(peer.Read(&sender, packet, sizeof packet), 8);
    packet[0] = packet[2] = '\0';
    packet[1] = 'N';
    EXPECT_EQ(peer.Write(&sender, packet, 8), 8);
    EXPECT_EQ(Finish(*ctl), 1);
    EXPECT_EQ(ctl->Err(), "orvexctl: refused by the receiver\n");
    ExpectRun({"set", "-r", "-W", "0.1", "-t", DEVICE_ADDRESS, "1:2:out1=L"}, 3, "",
              "orvexctl: no acknowledgement within 0.1 s\n");
}

TEST_F(Ctl, WatchesAsLongAsRequested) {
    StartAll();
    const auto all = StartListener(studio, {"watch", "--all"});
    const auto one = StartListener(studio, {"watch", "1:2:in1"});
    const auto other = StartListener(studio, {"watch", "7", "-W", "0.2"});
    ASSERT_TRUE(AwaitText(*one, "reply   1:2:in1       H\n")) << "the present state";
    ASSERT_TRUE(AwaitText(*all, "reply   1:2:in1       H\n")) << "answers to others as well";
    tqrd.server.Apply("GPI 1 LLHHL");
    EXPECT_TRUE(AwaitText(*all, "report  1:2:in1       L\n", 2)) << "both copies";
    ASSERT_TRUE(AwaitText(*one, "report  1:2:in1       L\n"));
    tqrd.server.Apply("GPI 1 HLHHL");
    ASSERT_TRUE(AwaitText(*one, "report  1:2:in1       H\n"));
    ASSERT_TRUE(AwaitText(*other, "orvexctl: no answer for 7\n"));
    for (const auto& watch : {one.get(), other.get()}) {
        watch->Signal(watch == one.get() ? SIGINT : SIGTERM);
        EXPECT_EQ(Finish(*watch), 0);
    }
    EXPECT_EQ(CountOf(one->Out(), "1:2:in1"), 3) << one->Out();
    EXPECT_EQ(other->Out(), "");

    ExpectRun({"watch", "--for", "0.2"}, 0, "", "");
    ExpectRun({"watch", "--for", "0.2", "--count", "1"}, 3, "",
              "orvexctl: only 0 of 1 came in time\n");
}

TEST_F(Ctl, PlaysBackWhatItRecorded) {
    StartAll();
    const std::string file = "/run/recording";
    const auto record =
        StartListener(studio, {"record", file, "--count", "3", "--max-size", "600"});
    record->Signal(SIGHUP);
    tqrd.server.Apply("GPI 1 LLLLL");
    ASSERT_TRUE(AwaitOut("parse_GPI 1 LLLLL\n"));
    Linger(300);
    ExpectRun({"set", "1:2:out2=L,500"}, 0, "sent\n", "");
    ASSERT_TRUE(AwaitHeard(tqrd, "GPO 1 xLxxx DURATION:500"));
    tqrd.server.Apply("GPI 1 HHHHH");
    ASSERT_EQ(Finish(*record), 0);

    const auto watch = StartListener(studio, {"watch", "--json", "-c", "4"});
    ExpectRun({"send", "--rotated", file}, 0, "sent 3 messages\n", "");
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 xLxxx DURATION:500", 2)) << "writes are recorded too";
    ExpectRun({"send", "--fast", "/dev/null"}, 0, "sent 0 messages\n", "");
    // Written by hand, with an identifier and types that no device knows: for listeners only.
    std::ofstream("/run/made") << R"({"id":"0xFF000001","port":2055,"reliable":true,"items":[)"
                               << R"({"tag":7,"type":99,"value":5},{"tag":7,"type":"message",)"
                               << R"("value":{"id":"ABCD","items":[]}}]})"
                               << "\n\n";
    ExpectRun({"send", "/run/made"}, 0, "sent 1 message\n", "");
    ASSERT_EQ(Finish(*watch), 0);
    std::stringstream text;
    EXPECT_TRUE(std::ifstream(file + ".3").good()) << "put aside empty, on SIGHUP";
    for (const char* number : {".2", ".1", ""}) {
        text << std::ifstream(file + number).rdbuf();
    }
    std::vector<Json> sent = Lines(text.str());
    const std::vector<Json> heard = Lines(watch->Out());
    ASSERT_EQ(sent.size(), 3U);
    ASSERT_EQ(heard.size(), 4U);
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(heard[i]["host"], STUDIO_ADDRESS);
        EXPECT_EQ(heard[i]["items"], sent[i]["items"]);
    }
    const double gap = heard[1]["time"].get<double>() - heard[0]["time"].get<double>();
    EXPECT_GE(gap, 0.1);  // of 0.3, to allow for a busy machine
    EXPECT_NEAR(gap, sent[1]["time"].get<double>() - sent[0]["time"].get<double>(), 0.2);
    EXPECT_EQ(heard[3]["items"], Json::parse(R"([{"tag":7,"type":99,"value":5},
              {"tag":7,"type":"message","value":{"id":"ABCD","items":[]}}])"));
    EXPECT_EQ(heard[3]["reliable"], true);

    std::ofstream("/run/made") << "{\"id\":\"ABCD\",\"items\":[]}\n{\"id\":\"ABCD\"}\n";
    ExpectRun({"send", "/run/made"}, 1, "", "orvexctl: /run/made:2: no \"items\"\n");
}

TEST_F(Ctl, EscapesWhatItShows) {
    StartAll();
    const auto text = StartListener(studio, {"watch"});
    CInetSocket peer;
    CInetAddress group;
    OpenRaw(peer, 4000);
    group.SetAddress(GROUP, 2055);
    const std::string bytes = Hex("03000207 00000001 0000000000000000") +
                              std::string("IN\x1B\xFF\0\1\0\1\2\10\2\0\6\x1B[2J\xFF\0", 19);
    for (const std::string& datagram : {std::string(), std::string(65507, '\xFF'), bytes}) {
        peer.Write(&group, datagram.data(), static_cast<int>(datagram.size()));
    }
    ASSERT_TRUE(AwaitText(*text, R"(string "\u001b[2J\\xFF")"));
    EXPECT_EQ(text->Out().find('\x1B'), std::string::npos);
    studio.Run("ip route del 224.0.0.0/4");
    ExpectRun({"set", "1:out1=L"}, 1, "", "orvexctl: not sent: Network is unreachable\n");
    ExpectRun({"watch"}, 1, "",
              "orvexctl: can't join 239.192.255.4: No such device (name an interface with -i)\n");
}

}  // namespace
