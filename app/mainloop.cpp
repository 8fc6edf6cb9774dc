// The select() loop.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app/orvex.h"
#include "msg/cmsgdump.h"
#include "tqr/line.h"
#include "tqr/trace.h"

namespace {

const useconds_t RECONNECT_PAUSE_US = 3400000;

// Moves line past the word if it begins with it.
bool skip_word(const char*& line, const char* word) {
    const size_t len = strlen(word);
    if (strncmp(line, word, len) != 0) {
        return false;
    }
    line += len;
    return true;
}

}  // namespace

// m_msg is written before it is read.
// cppcheck-suppress uninitMemberVar
CMainLoop::CMainLoop() : m_received(MSG_SIZE, MSG_GROW_BY), m_now() {
    gettimeofday(&m_sweep, nullptr);
    m_looked = m_sweep;
    FD_ZERO(&m_readable);
}

void CMainLoop::TellReady() {
    m_life_signs.Ready(tqr_limits);
}

bool CMainLoop::Turn() {
    keep_control_connection();
    begin_read_set();
    m_life_signs.Give(m_now);
    if (drop_vanished()) {
        return true;
    }
    watch_remotes();
    const int ready = wait_for_input();
    if (ready <= 0) {
        return ready == 0;
    }
    serve_control();
    if (m_config_changed) {
        return true;  // the read set may contain connections that are closed by now
    }
    serve_bus();
    serve_remotes();
    return true;
}

// Without TQRD nothing can be served, so nothing else happens until it is back.
void CMainLoop::keep_control_connection() {
    if (local.get_fd() != -1) {
        return;
    }
    fprintf(stderr, "Connection to TQRD lost\n");
    do {
        usleep(RECONNECT_PAUSE_US);
        connect_control();
        m_life_signs.GiveNow();
    } while (local.get_fd() == -1);
    request_configuration();
    if (resubscribe) {
        subscribe_inputs();
    }
    fprintf(stderr, "Connection to TQRD reopened\n");
}

void CMainLoop::watch(int fd) {
    if (fd != -1) {
        FD_SET(fd, &m_readable);
        m_maxfd = std::max(m_maxfd, fd);
    }
}

void CMainLoop::begin_read_set() {
    gettimeofday(&m_now, nullptr);
    FD_ZERO(&m_readable);
    m_maxfd = -1;
    watch(local.get_fd());
    watch(rudpsrv.GetSocket());
}

// Checks periodically for connections whose peers have vanished. True if there was one: the read
// set is out of date.
bool CMainLoop::drop_vanished() {
    if (tqr_limits.peer_ms == 0) {
        return false;
    }
    const long long elapsed = milliseconds_between(m_looked, m_now);
    if (elapsed >= 0 && elapsed < peer_watch_period(tqr_limits.peer_ms)) {
        return false;
    }
    m_looked = m_now;
    const bool control = local.drop_vanished();
    return gpiocli.drop_vanished() || control;
}

// Watches every remote connection once, through the lowest entry that shares it. When the sweep is
// due, reconnects those that are down.
void CMainLoop::watch_remotes() {
    const bool sweep_due = milliseconds_between(m_sweep, m_now) > SWEEP_PERIOD_S * 1000LL;
    m_remotes = 0;
    for_each_entry(gpiocli.entries(), [&](int entry) {
        int fd = gpiocli.get_fd(entry);
        if (fd == -1 && sweep_due) {
            fd = gpiocli.reconnect(entry);
        }
        if (fd != -1 && !is_readable(fd)) {  // else already in the set, through a lower entry
            watch(fd);
            m_remotes |= 1UL << entry;
        }
    });
    if (sweep_due) {
        m_sweep = m_now;
    }
}

int CMainLoop::wait_for_input() {
    timeval limit = {SWEEP_PERIOD_S, 0};
    const unsigned int period = peer_watch_period(tqr_limits.peer_ms);
    if (period != 0 && period < SWEEP_PERIOD_S * 1000) {
        limit = {static_cast<time_t>(period / 1000),
                 static_cast<suseconds_t>(period % 1000 * 1000)};
    }
    const int ready = select(m_maxfd + 1, &m_readable, nullptr, nullptr, &limit);
    if (ready < 0) {
        printf("%s: select() failed err=%d\n", APP_NAME, errno);
    }
    return ready;
}

void CMainLoop::serve_control() {
    m_config_changed = false;
    if (is_readable(local.get_fd())) {
        while (const char* line = local.recv(0)) {
            dispatch_control_line(line);
        }
    }
    if (iface_changed != 0) {
        follow_interface();
        iface_changed = 0;
    }
}

void CMainLoop::dispatch_control_line(const char* line) {
    if (skip_word(line, "CFG ")) {
        m_config_changed = parse_CFG(line) != 0 || m_config_changed;
    } else if (skip_word(line, "GPI ")) {
        parse_GPI(line);
    } else if (skip_word(line, "GPO ")) {
        parse_GPO(line);
    } else if (skip_word(line, "SET ")) {
        parse_SET(line);
    }
}

// Several "SET" lines may change the interface in one turn; the last one counts.
void CMainLoop::follow_interface() {
    const DottedQuad address(iface);
    if (dbg != 0) {
        printf("%s: iface changed: %s\n", APP_NAME, address.text);
    }
    if (setsockopt(rudpcli.GetSocket(), IPPROTO_IP, IP_MULTICAST_IF, &iface, sizeof iface) != 0) {
        printf("%s: setsockopt(IP_MULTICAST_IF,%s) failed error: %lu\n", APP_NAME, address.text,
               static_cast<unsigned long>(errno));
    }
    join_group();
}

// One message per turn, so that a flood from the bus leaves the other peers their share.
void CMainLoop::serve_bus() {
    if (!is_readable(rudpsrv.GetSocket())) {
        return;
    }
    if (!rudpsrv.WaitForMsg(&m_received, 0)) {
        printf("%s server RUDP:WaitForMsg failed with error: %lu\n", APP_NAME,
               rudpsrv.GetLastError());
        return;
    }
    if (dbg != 0 && msgdump != nullptr) {
        printf("S< %s\n", Message2String(&m_received, msgdump, MSG_LABEL_TAG));
    }
    cmsgprocess(m_received);
}

void CMainLoop::serve_remotes() {
    for_each_entry(m_remotes, [&](int entry) {
        if (is_readable(gpiocli.get_fd(entry))) {
            forward_remote(entry);
        }
    });
}

// Sets the output of every channel that follows a remote input to the input's state.
void CMainLoop::forward_remote(int entry) {
    unsigned long mask = 0;
    while (const char* state = gpiocli.receive(entry, &mask)) {
        for_each_entry(mask, [&](int k) {
            write_line(m_msg, "GPO ", k + 1, " ", state, "\n");
            local.send(m_msg);
        });
    }
}
