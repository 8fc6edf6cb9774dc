// A lower bound for any daemon: orvex-baseline least|same PATH stands in for the daemon on one path
// and ignores the content of what it receives.
//
//   least  the least a program can do: wait, receive, send
//   same   the system calls that the daemon makes for an event of this path, one for one
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "bench/Path.h"
#include "bench/sockets.h"

namespace {

const char BUS_LINE[] = "GPO 1 Lxxxx\n";
const char MIRROR_LINE[] = "GPO 2 LHHHH\n";
const size_t REPORT_SIZE = 52;  // header and five pins
const size_t REPLY_SIZE = 50;   // header, reference, one pin, kind and data
const size_t ACK_SIZE = 8;

class Baseline {
public:
    Baseline(Path path, bool same)
        : m_path(path),
          m_same(same),
          m_control(connect_to(CONTROL_ADDRESS, LINE_PORT)),
          m_bus(open_udp("0.0.0.0", BUS_PORT)),
          m_sender(open_udp("0.0.0.0", 0)),
          m_remote(connect_to(STUDIO_ADDRESS, LINE_PORT)) {
        join(m_bus, GROUP_ADDRESS, DEVICE_ADDRESS);
        m_group.sin_family = AF_INET;
        m_group.sin_addr.s_addr = inet_addr(GROUP_ADDRESS);
        m_group.sin_port = htons(REPORT_PORT);
    }

    // Handles one event. False if the peers have closed.
    bool Turn() {
        wait_for_any();
        switch (m_path) {
            case Path::Write:
                receive_datagram();
                return send_line(BUS_LINE);
            case Path::Report:
                return serve_lines(m_control, [this] { return report(REPORT_SIZE); });
            case Path::Read:
                receive_datagram();
                return report(REPLY_SIZE);
            case Path::Mirror:
                return serve_lines(m_remote, [this] { return send_line(MIRROR_LINE); });
            case Path::Reliable:
                receive_datagram();
                return sendto(m_bus, m_buf, ACK_SIZE, 0, reinterpret_cast<sockaddr*>(&m_from),
                              sizeof m_from) > 0;
        }
        return false;
    }

private:
    void wait_for_any() {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(m_control, &readable);
        FD_SET(m_bus, &readable);
        FD_SET(m_remote, &readable);
        timeval limit = {SWEEP_PERIOD_S, 0};
        select(std::max({m_control, m_bus, m_remote}) + 1, &readable, nullptr, nullptr, &limit);
    }

    bool look_again(int sock) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(sock, &readable);
        timeval limit = {0, 0};
        return select(sock + 1, &readable, nullptr, nullptr, &limit) > 0;
    }

    void receive_datagram() {
        if (m_same) {
            look_again(m_bus);
        }
        socklen_t size = sizeof m_from;
        recvfrom(m_bus, m_buf, sizeof m_buf, 0, reinterpret_cast<sockaddr*>(&m_from), &size);
    }

    bool read_lines(int sock, long& lines) {
        const ssize_t got = recv(sock, m_buf, 2000, 0);
        lines += got > 0 ? std::count(m_buf, m_buf + got, '\n') : 0;
        return got > 0;
    }

    // Responds to each received line. Like the daemon, reads before each of them and after the
    // last.
    template <class Act>
    bool serve_lines(int sock, Act act) {
        long lines = 0;
        if (!m_same && !read_lines(sock, lines)) {
            return false;
        }
        for (;; --lines) {
            if (m_same && look_again(sock) && !read_lines(sock, lines)) {
                return false;
            }
            if (lines == 0) {
                return true;
            }
            if (!act()) {
                return false;
            }
        }
    }

    bool send_line(const char* line) { return send(m_control, line, strlen(line), 0) > 0; }

    bool report(size_t size) {
        for (int i = 0; i < (m_same ? 2 : 1); ++i) {
            sendto(m_sender, m_buf, size, 0, reinterpret_cast<sockaddr*>(&m_group), sizeof m_group);
        }
        return true;
    }

    const Path m_path;
    const bool m_same;
    int m_control;
    int m_bus;
    int m_sender;
    int m_remote;
    sockaddr_in m_group = {};
    sockaddr_in m_from = {};
    char m_buf[65536] = {};
};

}  // namespace

int main(int argc, char** argv) {
    Path path = Path::Write;
    if (argc != 3 || !find_path(argv[2], path)) {
        fprintf(stderr, "usage: orvex-baseline least|same PATH\n");
        return 2;
    }
    static Baseline baseline(path, std::string(argv[1]) == "same");
    while (baseline.Turn()) {
    }
    return 0;
}
