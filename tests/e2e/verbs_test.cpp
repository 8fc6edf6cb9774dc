// Names, and the commands that wait, check and list.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>

#include "tests/e2e/Ctl.h"
#include "tests/support/sockets.h"

namespace {

class Verbs : public Ctl {
protected:
    // Output 1 has the address 1:2; output 9, whose state the daemon does not follow, has 9:9.
    void StartAll() {
        ASSERT_EQ(tqrd.server.Apply("CFG GPO 9 SRCA=9:9"), "");
        Ctl::StartAll();
        std::ofstream("/run/names") << "1:2 studio1 \"Studio 1\" # in front\n\n"
                                    << "1:2:out3 studio1.onair \"Studio 1 \\\"on air\\\"\"\n"
                                    << "1:2:in1 door\n9:9:out1 high\n";
        m_environment = {"ORVEX_NAMES=/run/names"};
    }

    void ExpectWait(const Words& arguments, int status, const std::string& err = "") {
        Words words = {"wait", "-q", "--for", "0.5"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        const auto wait = Start(studio, words);
        EXPECT_EQ(Finish(*wait), status);
        EXPECT_EQ(wait->Err(), err);
    }
};

TEST_F(Verbs, SetsAndChecks) {
    StartAll();
    ExpectRun({"set", "--check", "studio1.onair=L"}, 0, "1:2:out3  L  studio1.onair\n", "");
    EXPECT_EQ(tqrd.Count("GPO 1 xxLxx"), 1);
    ExpectRun({"set", "--check", "studio1:out3=high", "1:2:out1=L,500"}, 0,
              "1:2:out3  H  studio1.onair\n1:2:out1  L  studio1:out1\n", "");
    ExpectRun({"set", "-W", "0.4", "-k", "high=L"}, 3, "9:9:out1  H  high\n",
              "orvexctl: 9:9:out1 (high) is answered H: its control server did not carry the write "
              "out, or it is an output of channels 9 to 32, which is always answered H\n");
    const std::string nobody =
        ": nobody answers: no device on the bus has %, or its control server is away\n";
    ExpectRun({"set", "-W", "0.3", "-k", "7:out1=L"}, 3, "",
              "orvexctl: 7:out1" + std::string(nobody).replace(nobody.find('%'), 1, "7"));
    const std::string circuit =
        "orvexctl: 1:2:c50 (studio1:c50): devices have circuits 4 to 13 only, in1 to in5 and out1 "
        "to out5\n";
    ExpectRun({"set", "1:2:c50=L"}, 0, "sent\n", circuit);
    ExpectRun({"set", "-W", "0.1", "-qk", "1:2:c50=L"}, 3, "", circuit);
    ExpectRun({"set", "-W", "0.3", "-k", "door=L"}, 3, "1:2:in1  H  door\n",
              "orvexctl: 1:2:in1 (door) is an input: devices do not set it\n"
              "orvexctl: 1:2:in1 (door) is an input: devices do not set it\n");
}

TEST_F(Verbs, WaitsForLevels) {
    StartAll();
    ExpectWait({"door=H"}, 0);
    ExpectWait({"door=L"}, 3, "orvexctl: 1:2:in1 (door) is not L\n");
    ExpectWait({"door=H", "--edge"}, 3, "orvexctl: 1:2:in1 (door) did not change to H\n");
    ExpectWait({"door=L", "studio1.onair=H", "--any"}, 0);
    ExpectWait({"door=H", "studio1.onair=L", "1:2:in2=H"}, 3,
               "orvexctl: 1:2:out3 (studio1.onair) is not L; outputs of channels 9 to 32 are "
               "always answered H\norvexctl: 1:2:in2 (studio1:in2) is not H\n");

    const auto all = Start(studio, {"wait", "-j", "door=L", "studio1.onair=L"});
    const auto edge = Start(studio, {"wait", "--edge", "door=H", "--for", "9"});
    const auto pulse = Start(studio, {"wait", "--edge", "studio1.onair=H"});
    Linger(300);
    tqrd.server.Apply("GPI 1 LLHHL");
    ExpectRun({"set", "high=L", "studio1.onair=L,250"}, 0, "sent\n", "");
    EXPECT_EQ(Finish(*all), 0);
    EXPECT_EQ(Lines(all->Out())[1]["name"], "studio1.onair");
    EXPECT_EQ(Finish(*pulse), 0) << "after the duration of the write";
    EXPECT_TRUE(edge->IsRunning());
    tqrd.server.Apply("GPI 1 HLHHL");
    EXPECT_EQ(Finish(*edge), 0);
    ExpectWait({"high=L"}, 3,
               "orvexctl: 9:9:out1 (high) is not L; outputs of channels 9 to 32 are always "
               "answered H\n");
}

TEST_F(Verbs, WatchesChanges) {
    StartAll();
    const auto all = StartListener(studio, {"watch", "--changes", "-j"});
    const auto one = Start(studio, {"watch", "-c", "1", "door"});
    const auto form = StartListener(
        studio, {"watch", "-F", "%n %x %o%l %d %k %s %%", "--count", "3", "studio1.onair", "door"});
    ASSERT_TRUE(AwaitText(*form, "?H 0 reply told"));
    ASSERT_TRUE(AwaitText(*one, "1:2:in1       H    door\n"));
    tqrd.server.Apply("GPI 1 HHHHH");
    ASSERT_TRUE(AwaitText(*all, R"("pin":"1:2:in2","name":"studio1:in2","kind":"report")"));
    Linger(100);
    EXPECT_TRUE(one->IsRunning()) << "another pin";
    tqrd.server.Apply("GPI 1 LHHHH");
    EXPECT_EQ(Finish(*one), 0);
    ExpectRun({"set", "studio1.onair=L,500", "high=L"}, 0, "sent\n", "");
    EXPECT_EQ(Finish(*form), 0);
    EXPECT_NE(form->Out().find("door  HL 0 report told %\n"), std::string::npos) << form->Out();
    EXPECT_NE(form->Out().find("studio1.onair Studio 1 \"on air\" HL 500 write written %\n"),
              std::string::npos);
    EXPECT_NE(form->Out().find("studio1.onair Studio 1 \"on air\" LH 0 reply told %\n"),
              std::string::npos);
    ASSERT_TRUE(AwaitText(*all, R"("before":"L","level":"L","state":"written","denied":true)"));
    const std::vector<Json> lines = Lines(all->Out());
    const auto write = std::find_if(lines.begin(), lines.end(), [](const Json& line) {
        return line["kind"] == "write" && line["pin"] == "1:2:out3";
    });
    ASSERT_NE(write, lines.end());
    EXPECT_EQ((*write)["host"], STUDIO_ADDRESS);

    const auto nobody = StartListener(studio, {"watch", "-C"});
    ExpectRun({"set", "8:out1=L"}, 0, "sent\n", "");
    EXPECT_TRUE(AwaitText(*nobody, "forgotten  8:out1        L > ?, nobody answers\n"));

    // The output can be sent again.
    std::ofstream("/run/changes") << all->Out();
    tqrd.heard.clear();
    ExpectRun({"send", "-q", "--fast", "/run/changes"}, 0, "", "");
    EXPECT_TRUE(AwaitHeard(tqrd, "GPO 1 xxLxx DURATION:500"));
}

TEST_F(Verbs, ContinuesWhenTheInterfaceIsBack) {
    StartAll();
    const auto watch = StartListener(studio, {"watch", "-C", "-j", "--heartbeat", "0.3"});
    studio.Run("ip link set eth0 down");
    ASSERT_TRUE(AwaitText(*watch, "orvexctl: eth0 is down\n"));
    studio.Run("ip addr flush dev eth0; ip link set eth0 up");
    studio.Run("ip addr add 10.77.0.3/24 dev eth0; ip route add 224.0.0.0/4 dev eth0");
    ASSERT_TRUE(AwaitText(*watch, R"("event":"link","text":"eth0 is up again")"));
    tqrd.server.Apply("GPI 1 LLLLL");
    ASSERT_TRUE(AwaitText(*watch, R"("pin":"1:2:in4")"));
    ASSERT_TRUE(AwaitText(*watch, R"("event":"heartbeat")"));
}

TEST_F(Verbs, ListsAddressesInUse) {
    StartAll();
    tqrd.server.Apply("CFG GPO 2 SRCA=300");
    ASSERT_TRUE(AwaitOut("GPO 2 proto=2 ach=12C"));
    ExpectRun({"list", "-W", "0.3"}, 0,
              "1:2        10.77.0.1        in HLHHL  out HHHHH  studio1\n"
              "1:44       10.77.0.1        in HHHHH  out HHHHH\n"
              "9:9        10.77.0.1        in HHHHH  out HHHHH\n",
              "orvexctl: read 0 to 255:255 only; list 0-0xFFFFFF reads all addresses\n");
    const auto json = Start(studio, {"list", "-j", "-W", "0.3", "0-studio1"});
    EXPECT_EQ(Finish(*json), 0);
    ASSERT_EQ(Lines(json->Out()).size(), 10U);
    EXPECT_EQ(Lines(json->Out())[0]["hosts"], Json({DEVICE_ADDRESS}));
    ExpectRun({"list", "-W", "0.2", "3-7"}, 3, "", "orvexctl: no device answered\n");
}

TEST_F(Verbs, TellsOfTwoDevicesWithOneAddress) {
    StartAll();
    ASSERT_EQ(remote.server.Apply("CFG GPO 1 SRCA=1:2"), "");
    const Host::Scope on(studio);
    remote.server.Listen("127.0.0.1", 93);
    std::vector<std::string> other = {ORVEX_PROGRAM, "-debug"};
    if (ORVEX_EMULATOR[0] != '\0') {
        other.insert(other.begin(), ORVEX_EMULATOR);
    }
    Process second(other);
    ASSERT_TRUE(AwaitText(second, "GPO 1 proto=2 ach=102"));
    for (const Words& arguments :
         {Words{"get", "1:2:out1"}, Words{"set", "-k", "1:2:out1=L"},
          Words{"list", "-W", "0.2", "1:0-1:9"}, Words{"top", "-j", "--for", "0.3", "1:2:out1"}}) {
        const auto ctl = Start(studio, arguments);
        EXPECT_EQ(Finish(*ctl), 0);
        EXPECT_EQ(CountOf(ctl->Err(),
                          "orvexctl: 1:2 (studio1) is answered by 10.77.0.1 and "
                          "10.77.0.2: two devices have the same address\n"),
                  1)
            << arguments[0] << ctl->Err();
    }
}

TEST_F(Verbs, RunsCommandsOnChanges) {
    StartAll();
    const std::string script =
        "read -r line; echo \"$PIN $NAME $LEVEL $HOST $1 ${SINCE%.*}\" \"$line\"; exit 3";
    const auto each = Start(studio, {"on", "door=L", "--", "sh", "-c", script, "sh", "[a b]"});
    const auto held =
        Start(studio, {"on", "door=L", "--for", "400ms", "--once", "--", "echo", "lit"});
    const auto slow = Start(studio, {"on", "1:2:in2=H", "--timeout", "0.3", "--limit", "2/m", "--",
                                     "sh", "-c", "echo begun; sleep 30"});
    // They read their pins first: the level at the start is no change.
    Linger(500);
    for (const char* state : {"LHHHH", "HLHHH", "LHHHH"}) {
        EXPECT_EQ(held->Out(), "") << "too short";
        tqrd.server.Apply(std::string("GPI 1 ") + state);
        Linger(150);
    }
    ASSERT_TRUE(AwaitText(*each, "sh failed with status 3\n", 2));
    EXPECT_EQ(CountOf(each->Out(), "1:2:in1 door L 10.77.0.1 [a b] "), 2) << each->Out();
    EXPECT_EQ(CountOf(each->Out(), R"("pin":"1:2:in1","name":"door","kind":"report","before":"H")"),
              2)
        << each->Out();
    EXPECT_EQ(Finish(*held), 0);
    EXPECT_EQ(held->Out(), "lit\n");
    tqrd.server.Apply("GPI 1 LLHHH");
    Linger(100);
    tqrd.server.Apply("GPI 1 LHHHH");
    ASSERT_TRUE(AwaitText(*slow, "too many changes: the command is not run for all of them\n"));
    EXPECT_TRUE(AwaitText(*slow, "sh takes longer than 0.3 s: it is ended\n", 2));
    EXPECT_EQ(CountOf(slow->Out(), "begun\n"), 2) << "one after the other";

    // A gap is told. The same level after it is no change, another one is.
    studio.Run("ip link set eth0 down");
    ASSERT_TRUE(AwaitText(*each, "orvexctl: eth0 is down\n"));
    studio.Run("ip link set eth0 up; ip route add 224.0.0.0/4 dev eth0");
    ASSERT_TRUE(AwaitText(*each, "orvexctl: 1:2:in1 (door) is known again: L\n"));
    EXPECT_EQ(CountOf(each->Out(), "door L"), 2) << each->Out();
    each->Signal(SIGTERM);
    EXPECT_EQ(Finish(*each), 0);
}

TEST_F(Verbs, ShowsTheInputsOfARemoteServer) {
    const auto expect = [&](Process& ctl, int status, const char* out, const char* err) {
        EXPECT_EQ(Finish(ctl), status);
        EXPECT_EQ(ctl.Out(), out);
        EXPECT_EQ(ctl.Err(), err);
    };
    StartRemote();
    ASSERT_EQ(remote.server.Apply("GPI 3 LHHLH"), "");
    const Words arguments = {"channels", "-r", STUDIO_ADDRESS, "--inputs", "2-3"};
    expect(*Start(device, arguments), 0, "INPUT  STATE\n2      HHHHH\n3      LHHLH\n", "");
    remote.server.Close();
    expect(*Start(device, arguments), 1, "",
           "orvexctl: can't connect to 10.77.0.2:93: Connection refused\n");

    const Host::Scope on(studio);
    const int listener = bound_socket(SOCK_STREAM, STUDIO_ADDRESS, 93);
    ASSERT_EQ(listen(listener, 5), 0);
    expect(*Start(device, arguments), 3, "",
           "orvexctl: 10.77.0.2:93 accepts the connection and answers nothing: it hangs, or has "
           "none of these inputs\n");
    close(accept(listener, nullptr, nullptr));
    const auto ctl = Start(device, arguments);
    const int connection = accept(listener, nullptr, nullptr);
    ASSERT_EQ(write(connection, "SET A=1\n", 8), 8);
    expect(*ctl, 3, "", "orvexctl: 10.77.0.2:93 is well, but sends no states of these inputs\n");
    close(connection);
    close(listener);
}

TEST_F(Verbs, RefusesWithAHint) {
    StartAll();
    std::ofstream("/run/bad") << "# names\n1:2 studio1\n1:2 other\n";
    const std::ofstream there("/run/there");
    const struct {
        Words arguments;
        int status;
        const char* err;
    } cases[] = {
        {{"frob"}, 2, "unknown command frob; commands are list, get, set,"},
        {{"wacth", "1"}, 2, "unknown command wacth; did you mean watch?\nUsage: orvexctl [OPT"},
        {{"get"}, 2, "orvexctl: ADDRESS is required\nUsage: orvexctl get [OPTIONS] ADDRESS[:PIN]"},
        {{"set", "1:2:out1=L,0"}, 2, "a duration is 1 ms or more; without one the level stays\n"},
        {{"channels", "--explain", ""}, 1, "orvexctl: no field SRCA: the daemon ignores the line"},
        {{"on", "door=L", "--", "nosuch"}, 1, "orvexctl: no program nosuch\n"},
        {{"on", "door=L", "--limit", "5", "--", "true"}, 2, "hour, such as 10/s: 5\n"},
        {{"channels", "--inputs", "0"}, 2, "not inputs, such as 3 or 1-8, from 1 to 256: 0\n"},
        {{}, 2, "no command; commands are list, get, set,"},
        {{"-j"}, 2, "no command; commands are list, get, set,"},
        {{"get", "1", "-W", "0"}, 2, "not a number of seconds from 0.001 to 3600: 0\n"},
        {{"get", "1", "-g", "10.0.0.1"}, 2, "not a multicast group: 10.0.0.1\n"},
        {{"get", "1", "-p", "0"}, 2, "not a port: 0\n"},
        {{"get", "1", "-p", "1:2:3"}, 2, "not a port: 2:3\n"},
        {{"get", "1", "--reliable"}, 2, "get has no --reliable; these have it: set, send\n"},
        {{"set", "1:2:out1=L", "1:2:8=H"}, 2, "1:2:out1 (studio1:out1) is given twice\n"},
        {{"watch", "--count", "0"}, 2, "not a count from 1 on: 0\n"},
        {{"watch", "--for", "x"}, 2, "not a number of seconds from 0.001 to 100000000: x\n"},
        {{"record"}, 2, "FILE is required\n"},
        {{"send", "a", "b"}, 2, "The following argument was not expected: b\n"},
        {{"get", "-i", "nosuch", "1"}, 1, "orvexctl: interface nosuch: No such device\n"},
        {{"send", "/nosuch"}, 1, "can't read /nosuch: No such file or directory\n"},
        {{"get", "1:2", "--loop"}, 2, "get has no --loop; these have it: send\n"},
        {{"get", "-W", "0.1", "-t", "127.0.0.1", "studio1"}, 3, "no answer for 1:2 (studio1)\n"},
        {{"channels", "--explain", "1:3"}, 1, "a source alone is given as SRCA=1:3\n"},
        {{"get", "1:2:out9"}, 2, "no pin out9; pins are in1 to in5, out1 to out5, c0 to c255"},
        {{"get", "studio2"}, 2, "no name studio2 in /run/names"},
        {{"get", "door:in1"}, 2, "door is a pin, and has none of its own: door:in1"},
        {{"set", "studio1=L"}, 2, "studio1 is an address and names no pin; add one of in1 to"},
        {{"set", "1:300:out1=L"}, 2, "the second number of an address is 0 to 255: 1:300"},
        {{"wait", "door=x"}, 2, "not a level, L (low) or H (high): x"},
        {{"watch", "-F", "%q"}, 2, "no field %q; fields are %p"},
        {{"list", "7-3"}, 2, "a range begins with its lower end: 7-3"},
        {{"record", "1:2:in1"}, 2, "1:2:in1 is an address or pin; the FILE comes first"},
        {{"record", "/run/there", "door"}, 1, "/run/there exists; --force overwrites it\n"},
        {{"get", "-n", "/run/bad", "1"}, 1, "/run/bad:3: it already has a name: studio1\n"},
        {{"get", "-n", "/run/nosuch", "1"}, 1, "can't read /run/nosuch: No such file"},
        {{"get", "-n", "/dev/zero", "1"}, 1, "can't read /dev/zero: Operation not supported"},
    };
    for (const auto& c : cases) {
        const auto ctl = Start(studio, c.arguments);
        EXPECT_EQ(Finish(*ctl), c.status);
        EXPECT_EQ(ctl->Out(), "");
        EXPECT_NE(ctl->Err().find(c.err), std::string::npos) << c.err << "\n" << ctl->Err();
    }
    ExpectRun({"record", "--force", "/run/there", "door", "-f", "0.1"}, 0, "", "");
    ExpectRun({"-n", "/dev/null", "get", "1:2:out3", "1:2:8", "1:2:out3"}, 0,
              "1:2:out3  H\n1:2:out1  H\n", "");
}

TEST_F(Verbs, PlaysBackFasterAndRepeatedly) {
    StartAll();
    std::ofstream("/run/two") << R"({"time":100,"pin":"door","level":"L","kind":"report"})"
                              << "\n"
                              << R"({"time":101.5,"pin":"studio1.onair","level":"L"})"
                              << "\n{\"channel\":1,\"source\":\"1:2\"}\n{\"check\":\"group\"}\n";
    const auto begin = std::chrono::steady_clock::now();
    const auto send = Start(studio, {"send", "--speed", "5", "--loop", "/run/two"});
    ASSERT_TRUE(AwaitHeard(tqrd, "GPO 1 xxLxx", 2));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(took.count(), 0.75);
    EXPECT_LT(took.count(), 1.7);
    send->Signal(SIGTERM);
    EXPECT_EQ(Finish(*send), 0);
    // A pause before it starts over, even if nothing says when to send.
    std::ofstream("/run/two") << "{\"pin\":\"high\",\"level\":\"L\"}\n{\"check\":\"group\"}\n";
    ExpectRun({"send", "--for", "0.5", "--loop", "/run/two"}, 0, "sent 1 message, skipped 1 line\n",
              "");
}

// The manual's commands after a prompt, and its script.
TEST_F(Verbs, RunsTheExamplesOfItsManual) {
    StartAll();
    std::ifstream manual(ORVEX_MANUAL);
    const std::string prompt = ".Dl $ ";
    std::string script;
    int examples = 0;
    for (std::string line; std::getline(manual, line);) {
        if (line.rfind("#!/bin/sh", 0) == 0) {
            tqrd.server.Apply("GPI 1 LLHHL");
            while (std::getline(manual, line) && line != ".Ed") {
                script += line + "\n";
            }
            line = prompt + "set -e; " + script;
        }
        // Not doctor under an emulator, which hides the name of the daemon.
        if (line.rfind(prompt, 0) != 0 ||
            (ORVEX_EMULATOR[0] != '\0' && line.find(" doctor") != std::string::npos)) {
            continue;
        }
        const std::string program = ORVEX_EMULATOR + std::string(" ") + ORVEXCTL_PROGRAM;
        const Host::Scope on(device);
        Process shell({"/bin/sh", "-c",
                       "orvexctl() { " + program + " \"$@\"; }; " + line.substr(prompt.size())},
                      m_environment);
        EXPECT_EQ(Finish(shell), 0) << line << shell.Err();
        ++examples;
    }
    EXPECT_GT(examples, 10);
    EXPECT_NE(script, "");
}

}  // namespace
