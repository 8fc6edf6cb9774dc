#include "bench/Rig.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include "bench/sockets.h"
#include "msg/Msg2.h"
#include "rudp/RUdpLayer1Base.h"
#include "rudp/RUdpMsg.h"

namespace {

const int LIMIT_S = 5;
const int START_LIMIT_MS = 30000;               // under valgrind
const unsigned long GROUP_ADDRESS_TAG = 0x102;  // channel 1 has circuit group 1:2
const unsigned long NOBODYS_ADDRESS_TAG = 0x999;
const unsigned int CIRCUITS[] = {8, 7, 6, 5, 4, 13, 12, 11, 10, 9};

bool readable(int sock, int limit_ms) {
    pollfd waiting = {sock, POLLIN, 0};
    return poll(&waiting, 1, limit_ms) > 0;
}

void limit_waits(int sock) {
    const timeval limit = {LIMIT_S, 0};
    require(setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0, "setsockopt");
}

int accept_at(int listener) {
    require(readable(listener, START_LIMIT_MS), "the subject did not connect");
    const int sock = accept(listener, nullptr, nullptr);
    close(listener);
    limit_waits(sock);
    return sock;
}

std::string read_file(const std::string& path) {
    std::string text;
    std::getline(std::ifstream(path), text, '\0');
    return text;
}

// The number behind the label in one of the subject's files under /proc.
int64_t proc_number(pid_t pid, const char* file, const std::string& label) {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/" + file);
    const size_t place = text.find(label);
    require(place != std::string::npos, file);
    return std::stoll(text.substr(place + label.size()));
}

}  // namespace

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000000000) + now.tv_nsec;
}

Rig::Rig(const std::vector<std::string>& command, Kind kind) : m_detached(kind == Kind::Daemon) {
    require(Host::Connect(m_device, DEVICE_ADDRESS, m_studio, STUDIO_ADDRESS), "veth");
    const auto on = [](const Host& host, auto action) {
        const Host::Scope scope(host);
        return action();
    };
    const int control = on(m_device, [] { return listen_at(CONTROL_ADDRESS, LINE_PORT); });
    const int remote = on(m_studio, [] { return listen_at(STUDIO_ADDRESS, LINE_PORT); });
    m_peer = OpenPeer(0);
    m_reports = OpenPeer(REPORT_PORT);
    join(m_reports, GROUP_ADDRESS, STUDIO_ADDRESS);
    const int room = 8 << 20;
    setsockopt(m_reports, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    setsockopt(m_peer, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    m_group.sin_family = AF_INET;
    m_group.sin_addr.s_addr = inet_addr(GROUP_ADDRESS);
    m_group.sin_port = htons(BUS_PORT);
    for (int path = 0; path < PATH_COUNT; ++path) {
        m_packets.push_back(Packet(static_cast<Path>(path), 1));
    }

    on(m_device, [&] { m_process = std::make_unique<Process>(command); });
    m_control = accept_at(control);
    m_pid = m_detached ? static_cast<pid_t>(std::stol("0" + read_file("/var/run/orvex.pid")))
                       : m_process->Pid();
    if (m_detached) {
        AwaitText(m_control, "CFG GPO\n");
        const char lines[] = "CFG GPO 1 SRCA=1:2\nCFG GPO 2 SRCA=10.77.0.2/1\n";
        require(send(m_control, lines, strlen(lines), 0) > 0, "send");
    }
    m_remote = accept_at(remote);
    if (m_detached) {
        AwaitText(m_control, "GPO 2 HHHHH\n");
        AwaitText(m_remote, "ADD GPI 1\n");
    }
    Settle();
}

Rig::~Rig() {
    if (m_detached) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        // A tracer of the daemon writes its summary now.
        for (m_process->Pump(); m_process->IsRunning(); m_process->Pump()) {
            usleep(1000);
        }
    }
    for (const int sock : {m_control, m_remote, m_peer, m_reports}) {
        close(sock);
    }
}

int Rig::OpenPeer(unsigned short port) const {
    const Host::Scope on(m_studio);
    const int sock = open_udp("0.0.0.0", port);
    limit_waits(sock);
    return sock;
}

std::string Rig::Packet(Path path, unsigned int items) {
    CMsg2 msg(items, 1);
    msg.SetId(path == Path::Read ? 0x52454144 : 0x57524E49);
    for (unsigned int i = 0; i + 1 < items; ++i) {
        // Circuits without a pin, so that all tags differ.
        msg.SetByte((NOBODYS_ADDRESS_TAG + i) << 8 | CIRCUITS[0], 0x40);
    }
    const unsigned long address = path == Path::Reliable ? NOBODYS_ADDRESS_TAG : GROUP_ADDRESS_TAG;
    msg.SetByte(address << 8 | CIRCUITS[0], 0x40);

    RUdpMsg packet(msg.GetDataSize());
    packet.SetDataCount(msg.GetData(reinterpret_cast<char*>(packet.GetDataPtr())));
    packet.SetPayloadVersion(CMsg2::GetVer());
    packet.SetRUdpVersion(CRUdpLayer1Base::GetVer());
    packet.SetMsgLayerAndType(
        3, path == Path::Reliable ? CRUdpLayer1Base::MESSAGE : CRUdpLayer1Base::DATAGRAM);
    return std::string(reinterpret_cast<char*>(packet.GetPacketPtr()), packet.GetPacketByteCount());
}

void Rig::AwaitText(int sock, const std::string& text) {
    std::string heard;
    while (heard.find(text) == std::string::npos) {
        char buf[2000];
        require(readable(sock, START_LIMIT_MS), "the subject did not send the expected line");
        const ssize_t got = recv(sock, buf, sizeof buf, 0);
        require(got > 0, "the subject ended");
        heard.append(buf, static_cast<size_t>(got));
    }
}

void Rig::SendPacket(int sock, std::string& packet) {
    RUdpMsg header(reinterpret_cast<unsigned char*>(&packet[0]), packet.size());
    header.SetMsgTID(++m_tid);
    sendto(sock, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&m_group),
           sizeof m_group);
}

void Rig::SendLine(Path path) {
    const char* const lines[] = {"GPI 1 LHHHH\n", "GPI 1 HHHHH\n"};
    const char* const line = lines[m_level ^= 1];
    require(send(path == Path::Report ? m_control : m_remote, line, strlen(line), 0) > 0, "send");
}

int Rig::ResultSocket(Path path) const {
    switch (path) {
        case Path::Write:
        case Path::Mirror:
            return m_control;
        case Path::Reliable:
            return m_peer;
        default:
            return m_reports;
    }
}

void Rig::Await(Path path, int sock) {
    char buf[4096];
    const int source = path == Path::Reliable ? sock : ResultSocket(path);
    require(recv(source, buf, sizeof buf, 0) > 0, path_name(path));
}

// All subjects but "least" send reports and replies twice.
void Rig::AwaitSecond(Path path) {
    if (ResultSocket(path) == m_reports) {
        char buf[4096];
        while (readable(m_reports, 0) && recv(m_reports, buf, sizeof buf, MSG_DONTWAIT) > 0) {
        }
    }
}

// The subject sleeps only while it waits for the next event.
void Rig::Settle() const {
    for (sched_yield(); !IsAsleep(); usleep(20)) {
    }
}

bool Rig::IsAsleep() const {
    const std::string text = read_file("/proc/" + std::to_string(m_pid) + "/stat");
    const size_t name_end = text.rfind(')');
    require(name_end != std::string::npos, "the subject ended");
    return text[name_end + 2] == 'S';
}

int64_t Rig::Event(Path path) {
    if (path == Path::Report || path == Path::Mirror) {
        const int64_t start = now_ns();
        SendLine(path);
        Await(path, -1);
        const int64_t end = now_ns();
        Settle();
        AwaitSecond(path);
        return end - start;
    }
    return BusEvent(path, m_peer, m_packets[static_cast<size_t>(path)]);
}

int64_t Rig::BusEvent(Path path, int sock, std::string& packet) {
    const int64_t start = now_ns();
    SendPacket(sock, packet);
    Await(path, sock);
    const int64_t end = now_ns();
    Settle();
    AwaitSecond(path);
    return end - start;
}

void Rig::Start(Path path) {
    if (path == Path::Report || path == Path::Mirror) {
        SendLine(path);
    } else {
        SendPacket(m_peer, m_packets[static_cast<size_t>(path)]);
    }
}

int Rig::Finish(Path path) {
    static char buf[1 << 16];
    const int source = ResultSocket(path);
    if (source != m_control) {
        const int each = source == m_reports ? 2 : 1;
        while (recv(source, buf, sizeof buf, MSG_DONTWAIT) > 0) {
            ++m_results;
        }
        const long events = m_results / each;
        m_results %= each;
        return static_cast<int>(events);
    }
    const ssize_t got = recv(source, buf, sizeof buf, MSG_DONTWAIT);
    return got > 0 ? static_cast<int>(std::count(buf, buf + got, '\n')) : 0;
}

int64_t Rig::CpuNs() const {
    return proc_number(m_pid, "schedstat", "");
}

int Rig::ResidentKiB() const {
    return static_cast<int>(proc_number(m_pid, "smaps_rollup", "Rss:"));
}

int Rig::LowResidentKiB() const {
    std::ifstream maps("/proc/" + std::to_string(m_pid) + "/smaps");
    bool low = false;
    int sum = 0;
    for (std::string line; std::getline(maps, line);) {
        unsigned long long start = 0;
        int kib = 0;
        if (sscanf(line.c_str(), "%llx-%*x ", &start) == 1 && line.find('-') < line.find(' ')) {
            low = start >> 32 == 0;
        } else if (low && sscanf(line.c_str(), "Rss: %d", &kib) == 1) {
            sum += kib;
        }
    }
    return sum;
}

int Rig::Wakeups() const {
    return static_cast<int>(proc_number(m_pid, "status", "\nvoluntary_ctxt_switches:"));
}
