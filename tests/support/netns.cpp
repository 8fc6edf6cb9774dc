#include "tests/support/netns.h"

#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

std::string set_up(const std::string& name, const std::string& address) {
    return "ip addr add " + address + " dev " + name + " && ip link set " + name +
           " up && ip route add 224.0.0.0/4 dev " + name;
}

// Waits until the other process is here as well. False when it ended.
bool meet(int sock) {
    char byte = 0;
    return send(sock, &byte, 1, MSG_NOSIGNAL) == 1 && recv(sock, &byte, 1, 0) == 1;
}

}  // namespace

bool NetNs::Enter() {
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (unshare(CLONE_NEWNET | (uid == "0" ? 0 : CLONE_NEWUSER)) != 0) {
        perror("no network namespace");
        return false;
    }
    if (uid != "0") {
        // As root of the new user namespace, or the commands run below would have no rights.
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    }
    return Run("ip link set lo up");
}

bool NetNs::Run(const std::string& command) {
    return system(command.c_str()) == 0;
}

// They meet when the child is in its namespace, when its end of the pair is there too, and when it
// has set that up.
NetNsChild::NetNsChild(const std::string& here, const std::string& there,
                       const std::function<int()>& body) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return;
    }
    fflush(nullptr);
    m_nPid = fork();
    if (m_nPid == 0) {
        close(ends[0]);
        const bool joined = unshare(CLONE_NEWNET) == 0 && meet(ends[1]) && meet(ends[1]) &&
                            NetNs::Run("ip link set lo up && " + set_up("eth0", there)) &&
                            meet(ends[1]);
        const int status = joined ? body() : 126;
        fflush(nullptr);
        _exit(status);
    }
    close(ends[1]);
    m_bJoined = m_nPid > 0 && meet(ends[0]) &&
                NetNs::Run("ip link add peer type veth peer name eth0 netns " +
                           std::to_string(m_nPid) + " && " + set_up("peer", here)) &&
                meet(ends[0]) && meet(ends[0]);
    close(ends[0]);
}

NetNsChild::~NetNsChild() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGKILL);
        Wait();
    }
}

int NetNsChild::Wait() {
    int status = 0;
    const pid_t pid = m_nPid;
    m_nPid = -1;
    const bool ended = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status);
    return ended ? WEXITSTATUS(status) : -1;
}
