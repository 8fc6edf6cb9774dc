// Runs the program orvex-sim as its users do.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include "tests/support/Process.h"
#include "tests/tools/server/TestClient.h"

namespace {

class Program : public Process {
public:
    // The build's command includes the emulator, if the program needs one.
    explicit Program(const std::string& arguments)
        : Process({"sh", "-c", "exec " ORVEX_SIM_COMMAND " " + arguments}) {}

    bool HasPrinted(const std::string& text) {
        return Await([&] {
            Pump();
            return (Out() + Err()).find(text) != std::string::npos;
        });
    }

    int End() {
        Await([this] { return Pump(), !IsRunning(); });
        return Status();
    }

    // The port of the first address that it listens on.
    uint16_t Port() {
        const std::string listening = "listening on 127.0.0.1:";
        EXPECT_TRUE(HasPrinted(listening));
        const size_t at = std::min(Out().find(listening) + listening.size(), Out().size());
        return static_cast<uint16_t>(atoi(Out().c_str() + at));
    }
};

TEST(OrvexSim, EndsWithAStatus) {
    const struct {
        const char* arguments;
        int status;
        const char* message;
    } cases[] = {{"--listen 127.0.0.1:0 <<E\nquit\nE\n", 0, "listening on 127.0.0.1:"},
                 {"--help", 0, "Usage: orvex-sim"},
                 {"--version", 0, "orvex-sim " ORVEX_VERSION "\n"},
                 {"--bogus", 2, "--bogus"},
                 {"--listen 127.0.0.1:65536", 2, "127.0.0.1:65536"},
                 {"a b", 2, "b"},
                 {"/nonexistent", 1, "/nonexistent: can't read: No such file"},
                 {"/", 1, "/: can't read: Is a directory"},
                 {"--listen 192.0.2.1:1", 1, "192.0.2.1:1: can't listen: Cannot assign"}};
    for (const auto& entry : cases) {
        Program program(entry.arguments);
        EXPECT_EQ(program.End(), entry.status) << entry.arguments;
        EXPECT_TRUE(program.HasPrinted(entry.message)) << program.Out() << program.Err();
    }
}

TEST(OrvexSim, MarksErrorsInTheJournal) {
    const std::string run = ORVEX_SIM_COMMAND " /nonexistent; ";
    Process shell({"sh", "-c",
                   "f=$(mktemp); exec 2>>$f; " + run +
                       "export JOURNAL_STREAM=$(stat -c %d:%i $f); " + run + "cat $f; rm $f"});
    const std::string message = "orvex-sim: /nonexistent: can't read: No such file or directory\n";
    EXPECT_TRUE(Await([&shell] { return shell.Pump(), !shell.IsRunning(); }));
    EXPECT_EQ(shell.Out(), message + "<3>" + message);
}

TEST(OrvexSim, FollowsFileAndInput) {
    char name[] = "/tmp/orvex-sim-test-XXXXXX";
    const Descriptor file(mkstemp(name));
    std::ofstream(name) << "# comment\r\n\n  CFG GPO 1 SRCA=2 \r\nSET A=1\nGPO 2 L\nshow";
    Program program(std::string("--listen 127.0.0.1:0 --listen 127.0.0.1:0 ") + name);
    TestClient client(program.Port());
    unlink(name);
    EXPECT_TRUE(program.HasPrinted(std::string(name) + ":6: line not understood: show"));

    client.Send("SET\nCFG GPO\nADD GPI 3\n");
    EXPECT_TRUE(program.HasPrinted(" > GPI 3 HHHHH\n"));
    program.Type("GPI 3 L\n# no\nGPI 3\n" + std::string(9000, 'x') + "\nshow\ndrop\n");
    EXPECT_TRUE(program.HasPrinted("standard input: line not understood: GPI 3 ("));
    EXPECT_TRUE(program.HasPrinted("standard input: line too long"));
    EXPECT_TRUE(
        program.HasPrinted("\nSET A=1\nCFG GPO 1 SRCA=2\nGPI 3 LHHHH\nGPO 2 LHHHH\n# 127.0.0.1:"));
    EXPECT_TRUE(program.HasPrinted("dropped\n"));
    EXPECT_FALSE(client.Read());
    EXPECT_EQ(client.received,
              "SET A=1\nCFG GPO 1 SRCA=2\nGPO 1 HHHHH\nGPI 1 HHHHH\nGPI 3 HHHHH\nGPI 3 LHHHH\n");
}

TEST(OrvexSim, ServesWithoutInputUntilASignal) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Program program("--listen 127.0.0.1:0 </dev/null");
        TestClient(program.Port()).Send("\x1b[2J\n");
        EXPECT_TRUE(program.HasPrinted(" < \\x1B[2J\n"));
        program.Signal(signal);
        EXPECT_EQ(program.End(), 0);
    }
}

}  // namespace
