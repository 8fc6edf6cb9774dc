#include "tests/support/netns.h"

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

std::string interface_up(const std::string& name, const std::string& address) {
    return "ip addr add " + address + " dev " + name + " && ip link set " + name +
           " up && ip route add 224.0.0.0/4 dev " + name;
}

void write_text(const char* file, const std::string& text) {
    std::ofstream(file) << text;
}

void signal_to(int pipe_end) {
    if (write(pipe_end, "", 1) != 1) {
        _exit(126);
    }
}

// False when the other side ended without a signal.
bool await(int pipe_end) {
    char byte;
    return read(pipe_end, &byte, 1) == 1;
}

}  // namespace

bool NetNs::Enter() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNET | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) {
        perror("no network namespace");
        return false;
    }
    if (uid != 0) {
        // As root of the new user namespace, or the commands run below would have no rights.
        write_text("/proc/self/setgroups", "deny");
        write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    return Run("ip link set lo up");
}

bool NetNs::Run(const std::string& command) {
    return system(command.c_str()) == 0;
}

// The child is in its namespace, then we give it its end of the pair, then it sets that up.
NetNsChild::NetNsChild(const std::string& here, const std::string& there,
                       const std::function<int()>& body) {
    int to_child[2];
    int from_child[2];
    if (pipe(to_child) != 0 || pipe(from_child) != 0) {
        return;
    }
    fflush(nullptr);
    m_nPid = fork();
    if (m_nPid == 0) {
        close(to_child[1]);
        close(from_child[0]);
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(126);
        }
        signal_to(from_child[1]);
        if (!await(to_child[0]) ||
            !NetNs::Run("ip link set lo up && " + interface_up("eth0", there))) {
            _exit(126);
        }
        signal_to(from_child[1]);
        const int status = body();
        fflush(nullptr);
        _exit(status);
    }
    close(to_child[0]);
    close(from_child[1]);
    if (m_nPid > 0 && await(from_child[0]) &&
        NetNs::Run("ip link add peer type veth peer name eth0 netns " + std::to_string(m_nPid) +
                   " && " + interface_up("peer", here))) {
        signal_to(to_child[1]);
        m_bJoined = await(from_child[0]);
    }
    close(to_child[1]);
    close(from_child[0]);
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
    if (pid <= 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}
