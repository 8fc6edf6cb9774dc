#include "tests/e2e/Wired.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

void Wired::ConfigureChannels() {
    for (const char* line :
         {"CFG GPO 1 SRCA=10.77.0.2/1", "CFG GPO 2 SRCA=10.77.0.2/1", "CFG GPO 3 SRCA=0x30"}) {
        ASSERT_EQ(tqrd.server.Apply(line), "");
    }
}

void Wired::StartPeers() {
    ConfigureChannels();
    StartControl();
    StartRemote();
    peer = std::make_unique<BusPeer>(studio, STUDIO_ADDRESS);
}

void Wired::StartAll(const std::vector<std::string>& environment) {
    if (peer == nullptr) {
        StartPeers();
    }
    StartDaemon({}, environment);
    AwaitRunning();
}

void Wired::AwaitRunning() {
    ASSERT_TRUE(AwaitHeard(remote, "ADD GPI 1", 2));
    ASSERT_TRUE(AwaitHeard(tqrd, "ADD GPI 3"));
    Linger(100);
    peer->Reports();
    tqrd.heard.clear();
    remote.heard.clear();
}

void Wired::TearDown() {
    if (daemon != nullptr && !daemon->IsRunning() && Pid() > 1) {
        kill(Pid(), SIGTERM);
    }
    Site::TearDown();
}

void Wired::SendWrite() {
    peer->Send(peer->Packet('\0', Hex("57524E49 0001 00003008 07 40")), DEVICE_ADDRESS);
}

void Wired::SendRead() {
    peer->Send(peer->Packet('M', Hex("52454144 0001 0000300D 07 00")), DEVICE_ADDRESS);
}

bool Wired::AwaitReports(size_t count, int limit_ms) {
    return Await([&] { return (count -= std::min(count, peer->Reports().size())) == 0; }, limit_ms);
}

testing::AssertionResult Wired::AnswersRead() {
    const int AT_ONCE_MS = 1000;  // allows for a busy machine
    peer->Reports();
    peer->Answers();
    SendRead();
    if (!AwaitReports(2, AT_ONCE_MS)) {
        return testing::AssertionFailure() << "no reply to a read";
    }
    return Await([this] { return !peer->Answers().empty(); })
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "no acknowledgement";
}

testing::AssertionResult Wired::Works() {
    testing::AssertionResult read = AnswersRead();
    if (!read) {
        return read;
    }
    const std::string state = m_low ? "HHHHH" : "LLLLL";
    m_low = !m_low;
    tqrd.heard.clear();
    SendWrite();
    if (!AwaitHeard(tqrd, "GPO 3 Lxxxx")) {
        return testing::AssertionFailure() << "no line for a write";
    }
    tqrd.server.SendRaw("GPI 3 " + state + "\n");
    if (!AwaitReports(2)) {
        return testing::AssertionFailure() << "no report";
    }
    remote.server.SendRaw("GPI 1 " + state + "\n");
    return AwaitHeard(tqrd, "GPO 1 " + state) && AwaitHeard(tqrd, "GPO 2 " + state)
               ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "no mirrored line";
}

pid_t Wired::Pid() const {
    if (daemon->IsRunning()) {
        return daemon->Pid();
    }
    pid_t pid = 0;
    std::ifstream("/run/orvex.pid") >> pid;
    return pid;
}

namespace {

std::string ProcPath(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The number after a word in the process's status.
long StatusValue(pid_t pid, const std::string& word) {
    std::ifstream status(ProcPath(pid, "status"));
    long value = 0;
    for (std::string read; status >> read;) {
        if (read == word + ":") {
            status >> value;
        }
    }
    return value;
}

}  // namespace

long Wired::ResidentKiB() const {
    return StatusValue(Pid(), "VmRSS");
}

void Wired::ExpectMemory(long resident_kib, long events, long bytes_per_event) const {
#ifdef __SANITIZE_ADDRESS__
    const bool measurable = false;
#else
    const bool measurable = true;
#endif
    const long ALLOCATOR_KIB = 16;  // the allocator takes a page now and then
    const long grown = ResidentKiB() - resident_kib;
    const long per_event = std::max(grown - ALLOCATOR_KIB, 0L) * 1024 / events;
    printf("%ld events: %+ld KiB\n", events, grown);
    EXPECT_TRUE(!measurable || per_event <= bytes_per_event)
        << grown << " KiB, " << per_event << " bytes an event";
}

long Wired::WakeUps() const {
    return StatusValue(Pid(), "voluntary_ctxt_switches");
}

long Wired::Descriptors() const {
    std::error_code error;
    const std::filesystem::directory_iterator list(ProcPath(Pid(), "fd"), error);
    return std::distance(begin(list), end(list));
}

long Wired::CpuMs() const {
    std::ifstream stat(ProcPath(Pid(), "stat"));
    const int USER_TIME = 14;
    long ticks = 0;
    std::string word;
    for (int field = 1; field <= USER_TIME + 1 && stat >> word; ++field) {
        ticks += field < USER_TIME ? 0 : std::stol(word);
    }
    return ticks * 1000 / sysconf(_SC_CLK_TCK);
}
